// State and helpers shared by the stack manager's own files; not part of the
// manager's interface.
#pragma once

#include "protocol/management.h"
#include "stackman/stackman.h"

struct stackman_manager {
  bucket runenv_root;
  bucket stacks_root;
  bucket data_root;
  socket_record node;  // ./private/node: every control message is sent from here
  stackman_stack* stacks;  // newest first
  const char* last_error;
  char name_buffer[STACKMAN_NAME_SIZE];  // a name-tag read at start-up
  char key_text[STACKMAN_KEY_SIZE];  // the key of the deployment under way
  char descriptor_text[128];  // the inherited connection's number, in decimal
  bool locked;  // lock_descriptors hold ./private/lock
  int lock_descriptors[2];  // the lock file as opened, and as renamed into place
  stackman_deployments deployments;
};

extern stackman_manager stackman_state;

inline constexpr const char* STACKMAN_BOOTSTRAP = "./runenv/image/application-server-bootstrap";

void stackman_set_error(const char* text);

// Starts an idle stack as a job with the stack argument vector, followed by
// `extra` (null-terminated, may be null). 0 and running, or -1 with the last
// error "invalid stack state" or "spawn child".
int stackman_start(stackman_stack* stack, const char* const* extra);

// Unlinks the record from the list and frees it with its paths.
void stackman_stack_free(stackman_stack* stack);

// Durable files and directories (durable.cc).
//
// {data root}/.staging-{64 hexadecimal}: where deployment builds a store
// while its image arrives, before the key is known; a new name at every call.
bucket stackman_staging_path();
// {store}/serv/.name.tmp: where rename writes the new name-tag.
bucket stackman_name_tag_temporary(stackman_stack* stack);
// Writes the whole file (created or truncated) and syncs it; 0 or -1.
int stackman_write_durable(bucket* path, const void* bytes, uint64_t size);
int stackman_sync_descriptor(int descriptor);
int stackman_sync_directory(bucket* path);
// Renames `path` (the key's entry under `root`) to root/.deleting-{key},
// then removes that tree; a path that cannot be renamed is removed in place.
void stackman_remove_hidden(bucket* path, bucket* root, const char* key);
// Removes, with one line each, the daemon's own hidden leftovers in both
// roots and the scratch directories that have no store.
void stackman_sweep();
// Removes a name-tag temporary a rename left in the store.
void stackman_sweep_store(stackman_stack* stack);

// The working-directory lock and the job records (jobs.cc).
//
// Takes ./private/lock, or writes the in-use line and exits with status 1.
void stackman_lock();
void stackman_unlock();
// Records the stack's new job in ./private, and forgets it when collected.
void stackman_jobs_record(stackman_stack* stack);
void stackman_jobs_forget(stackman_stack* stack);
// Stops the process groups that recorded jobs of an earlier run left behind.
void stackman_stop_orphans();

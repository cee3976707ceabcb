// State and helpers shared by the stack manager's own files; not part of the
// manager's interface.
#pragma once

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

// Ends every job with SIGKILL, frees every record and closes the node socket,
// leaving the disk as it is, so that one test process can open the manager
// more than once.
void stackman_reset();

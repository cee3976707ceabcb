// The stack manager: the set of stacks, their records and states, recovery
// from the data root at start-up, deployment of uploaded images, supervision
// of the stacks' process groups and the control channel to the stacks.
//
// Crash safety: a store appears under its key only complete and synced, and
// leaves it before it is taken apart (durable.cc names the hidden staging
// and deleting entries); the daemon holds ./private/lock for its life and
// records every job it starts under ./private, so that the next start stops
// what a killed daemon left running (jobs.cc).
//
// Single-threaded. The manager owns every stack record from its creation to
// stackman_stack_destroy; a record returned by a lookup or an iterator stays
// valid until then, and no iteration may run across a destruction.
#pragma once

#include <cstdint>

#include "base/bucket.h"
#include "base/hash.h"
#include "base/ostream.h"
#include "base/process.h"
#include "base/socket.h"

enum : uint32_t {
  STACKMAN_IDLE = 0,  // deployed, no process; started again on demand
  STACKMAN_RUNNING = 1,  // the stack's job has been started
  STACKMAN_STOPPING = 2,  // told to shut down; waiting for its job to end
  STACKMAN_UNDEPLOYED = 3,  // found without the deployed marker; destroyed next pass
};

// Selectors of the control messages the manager sends (its own numbering).
enum : int {
  STACKMAN_SET_NAME = 0,
  STACKMAN_SOCKPASS = 1,
  STACKMAN_SHUTDOWN = 2,
};

constexpr uint64_t STACKMAN_KEY_SIZE = 65;  // 64 hexadecimal characters + terminator
constexpr uint64_t STACKMAN_NAME_SIZE = 1024;  // the longest name the management vocabulary allows + terminator

// How a stack's latest job ended.
struct stackman_exit {
  int32_t code;  // as process_wait decodes it: 0, the exit status, or the signal
  char text[64];  // "success", "failure", the signal's description, ...
  int64_t at;  // unix seconds of its collection
};

// What the manager has seen of one stack since the daemon started, for the
// operator's view; nothing in the manager acts on it.
struct stackman_figures {
  uint64_t starts;  // jobs started
  uint64_t exits;  // jobs collected, however they ended (killed ones included)
  int64_t started;  // unix seconds of the current job's start; 0 without a job
  uint64_t image_bytes;  // size of the stored image
  bool exited;  // `last_exit` holds the end of the latest job collected
  stackman_exit last_exit;
};

// Invariant: running and stopping stacks have a job, idle and undeployed ones
// have none.
struct stackman_stack {
  stackman_stack* next;  // next older record
  char key[STACKMAN_KEY_SIZE];  // directory name under both roots; never changes
  char name[STACKMAN_NAME_SIZE];  // unique among all records
  socket_address worker_address;  // {stack path}/os-worker
  uint32_t state;
  process* job;
  bucket stack_path;  // {stacks root}/{key}
  bucket store_path;  // {data root}/{key}
  bucket name_tag_path;  // {store path}/serv/name
  bucket deployed_path;  // {store path}/serv/deployed
  stackman_figures figures;
};

struct stackman_iter {
  stackman_stack* current;
  const char* name;
};

// Checks and makes the working directories, binds ./private/node, rebuilds
// the stack list from the data root and starts every deployed stack. Every
// failure writes one line and ends the process with status 1.
void stackman_open(const char* runenv_root, const char* stacks_root, const char* data_root);

// The stack whose name equals `name` byte for byte, or null.
stackman_stack* stackman_get(const char* name);
// Newest record first; null when there is none (the iterator is then untouched).
stackman_stack* stackman_iter_begin(stackman_iter* iterator);
stackman_stack* stackman_iter_move(stackman_iter* iterator);
// Records that are running or stopping.
uint64_t stackman_is_running();
// Deployment outcomes since the manager opened: deployments whose program
// was started, and those among them whose program then ended without
// creating the deployed marker, so that their stack was destroyed.
struct stackman_deployments {
  uint64_t started;
  uint64_t unfinished;
};
stackman_deployments stackman_deployment_counts();
// The last failure of a manager operation (a constant text, or null before
// the first failure).
const char* stackman_strerror();
// 0 when `name` is a valid stack name by the management vocabulary's rule
// (protocol/management.h); -1 otherwise.
int stackman_validate_name(const char* name);
// A new idle record at the head of the list, or null when a stack already has
// the name.
stackman_stack* stackman_stack_create(const char* key, const char* name);

// An uploaded image on its way to disk: each piece goes into the image file
// of a hidden staging store and into the key's digest as it arrives, so no
// image is ever held in memory. Filled by stackman_image_begin; ends in
// stackman_stack_allocate or stackman_image_discard, which remove what was
// staged unless it became a store.
struct stackman_image {
  bucket staging_path;  // {data root}/.staging-{64 hexadecimal}; nil when not made
  int descriptor;  // {staging}/serv/image, open for writing; -1 when not open
  hash_context digest;  // the calendar time, the name, then every image byte
  uint64_t size;  // image bytes written so far
  const char* error;  // first staging failure ("mkdir store path", "store image"), or null
};

// The largest image the data root can take now: its free space less a
// reserve of 1% of its file system, at least 64 MiB. UINT64_MAX when the data
// root cannot be examined (the deployment then fails on its own).
uint64_t stackman_image_room();
// Stages an image for `name`: makes the staging store with an empty image
// file and feeds the digest the time and the name. Does not fail: a failure
// is kept in `error`, later pieces are dropped, and the deployment reports it.
void stackman_image_begin(stackman_image* image, const char* name);
// Appends `size` bytes to the image file and the digest, and starts their
// write-back at once, so the final sync has little left to wait for.
void stackman_image_write(stackman_image* image, const void* bytes, uint64_t size);
// Closes the image file and removes the staging store.
void stackman_image_discard(stackman_image* image);

// Deploys a staged image as a new running stack that inherits `connection`
// and answers the client on it. REQUIRES: `name` is the one the image was
// begun with. Consumes the image: its staging store becomes the stack's
// store, or is removed. Null on failure (last error set, the staging error
// first among the store's own); nothing of the failed deployment is left
// behind.
stackman_stack* stackman_stack_allocate(const char* name, stackman_image* image, socket_record* connection);

// One supervision pass: collects ended jobs, reports them, settles states and
// destroys stacks whose deployment never completed.
void stackman_loop();
// Kills and reaps the job if any, removes both directories, frees the record.
void stackman_stack_destroy(stackman_stack* stack);
// Kills and reaps the job if any; the stack stays, idle.
void stackman_stack_killjob(stackman_stack* stack);
// The forced stop of every stack at once: SIGTERM to every job's group, one
// shared wait of at most 5 seconds, then SIGKILL to every group (with a line
// for each whose leader still ran); every leader is reaped and every stack
// left idle.
void stackman_killall();

// Ends every job with SIGKILL, frees every record and closes the node socket,
// leaving the disk as it is, so that one test process can open the manager
// more than once (for tests).
void stackman_reset();

// Composes one control message of the selector into `out` (internal; exposed
// for the tests). Composing a shutdown marks the stack stopping.
void stackman_stack_message(stackman_stack* stack, int selector, const char* name, ostream* out);
// Renames (new name already validated), rewrites the name-tag and tells the
// stack. Returns the stack, or null with the last error set.
stackman_stack* stackman_stack_rename(stackman_stack* stack, const char* new_name);
// Hands the connection to a running stack (0), or starts an idle one again
// and fails with "resurrecting dead stack" / "spawn child" (-1).
int stackman_upgrade_connection(stackman_stack* stack, socket_record* connection);
// Sends a message of selector 1 or 2 to one stack; 0 when sent.
int stackman_signal(stackman_stack* stack, int selector);
// Sends a message of the selector to every running stack.
void stackman_broadcast(int selector);

// The stack runtime: the program the daemon starts for every stack. It takes
// the stack's argument vector, finishes a deployment on the inherited client
// connection, binds the stack's control socket os-worker and serves the
// control messages, running the stack's application image once for every
// connection handed over to it (inetd-style handlers).
//
// Every function here runs on the runtime's only thread; the signal handlers
// only store flags that the control loop reads.
#pragma once

#include <csignal>
#include <cstdint>

#include "base/bucket.h"
#include "base/dymarray.h"
#include "base/socket.h"

// ---- argument vector -----------------------------------------------------

// program, stack path, name, runenv root, store path, "--" [, "--deploy", N]
struct runenv_args {
  const char* stack_path;  // as given: relative to the working directory
  const char* name;
  const char* runenv_root;
  const char* store_path;
  int32_t deploy_descriptor;  // -1 when started without "--deploy"
};

// 0 with `args` filled (pointers into argv), -1 when the vector is not one
// of the two accepted shapes or the descriptor is not a decimal number.
int runenv_parse_args(int argc, const char* const argv[], runenv_args* args);

// ---- the stack -----------------------------------------------------------

// Largest stack name with its terminator, the same bound as the daemon's.
constexpr uint64_t RUNENV_NAME_SIZE = 1024;

struct runenv_stack {
  bucket key;  // last component of the stack path: names the stack in log lines
  char name[RUNENV_NAME_SIZE];  // what the next handler sees; changed by set_name
  bucket worker_path;  // "{stack path}/os-worker" from the path as given (see runenv_stack_open)
  // Absolute forms: handlers run in the stack path, so nothing they are
  // given may be relative to the runtime's own working directory.
  bucket stack_path;
  bucket store_path;
  bucket image_path;  // {store path}/serv/image
  bucket deployed_path;  // {store path}/serv/deployed
  socket_record worker;  // the bound os-worker socket, descriptor -1 before
  dymarray handlers;  // pid_t of every handler not yet collected
};

// Fills the stack from the arguments. The paths are resolved against the
// working directory; the os-worker socket is not opened yet. -1 (and a log
// line) when the stack path or the store path cannot be resolved.
int runenv_stack_init(runenv_stack* stack, const runenv_args* args);
// Replaces the name, cut to RUNENV_NAME_SIZE - 1 bytes.
void runenv_stack_set_name(runenv_stack* stack, const char* name, uint64_t length);
// Binds os-worker at the stack path as the daemon gave it (the daemon sends
// to that same relative path, and it stays short enough for a unix address
// where the absolute one may not), removing a stale socket first.
// 0, or -1 after a log line.
int runenv_stack_open(runenv_stack* stack);
// Closes os-worker and removes its file, so the daemon's next message finds
// nobody rather than a dead socket.
void runenv_stack_close(runenv_stack* stack);
// Closes os-worker as above and frees what the stack holds; handlers still
// running are neither signalled nor collected.
void runenv_stack_release(runenv_stack* stack);

// ---- application image ---------------------------------------------------

// 0 when the file at `path` is an image the runtime can run: a regular file
// that starts with the ELF magic or with "#!". -1 otherwise, with `*reason`
// set to a constant text saying why.
int runenv_image_check(const char* path, const char** reason);
// Adds an execute bit for every read bit of the file. 0 or -1 with errno.
int runenv_image_make_executable(const char* path);

// ---- replies on client connections ----------------------------------------

enum runenv_reply_kind : int {
  RUNENV_REPLY_FAILURE = 0,  // failure with a reason
  RUNENV_REPLY_EMPTY = 1,  // success with nothing
  RUNENV_REPLY_UPGRADE = 2,  // the conversation goes on with the application
};

// Builds the reply and sends it as one frame on `connection`. `reason` is
// used only for a failure. 0, or -1 with the connection's error set.
int runenv_reply(socket_record* connection, runenv_reply_kind kind, const char* reason);

// ---- deployment ----------------------------------------------------------

// Adopts the inherited connection, checks and prepares the image, binds
// os-worker, creates the deployed marker and answers the client. 0 when the
// stack is deployed and serving; otherwise the exit status for the process
// (1), the client having been told why when it could be.
int runenv_deploy(runenv_stack* stack, int descriptor);

// ---- handlers ------------------------------------------------------------

// Runs the image with `connection` as its standard input and output, in the
// stack path, with the stack's variables. The connection record is closed
// here on every path (the handler keeps its own copy). 0 when the image was
// executed, -1 after a log line.
int runenv_handler_start(runenv_stack* stack, socket_record* connection);
// Collects every handler that has ended, without blocking, logging each end.
void runenv_handler_reap(runenv_stack* stack);
// Sends `signal_number` to every running handler.
void runenv_handler_signal(runenv_stack* stack, int signal_number);
// SIGTERM to every handler, up to `grace_ms` for them to end, SIGKILL for
// the rest; returns when all are collected (or a further second has passed).
void runenv_handler_stop_all(runenv_stack* stack, uint32_t grace_ms);

// ---- control loop --------------------------------------------------------

// Set by the SIGTERM and SIGINT handlers to the signal's number.
extern volatile sig_atomic_t runenv_stop_signal;
// Installs the handlers of SIGTERM, SIGINT (stop) and SIGCHLD (wake the
// loop to collect handlers), none restarting interrupted calls.
void runenv_install_signals();

// Receives and handles one datagram from os-worker. Returns 1 when the
// message asked the runtime to shut down, 0 otherwise (malformed messages
// included: they are logged and dropped).
int runenv_control_receive(runenv_stack* stack);
// Serves os-worker until a shutdown message or a stop signal; returns the
// process exit status.
int runenv_serve(runenv_stack* stack);

// The stack runtime: the program the daemon starts for every stack. It takes
// the stack's argument vector, finishes a deployment on the inherited client
// connection, binds the stack's control socket os-worker and serves the
// control messages.
//
// An application image is either one executable (an ELF program or a "#!"
// script), run once for every connection handed over to the stack
// (inetd-style handlers), or a bundle: a tar archive (plain, gzip or zstd)
// with the manifest appsrv.toml at its top, unpacked at deployment into
// {store path}/app. A bundle's manifest names a long-running service, which
// the runtime starts with the stack and restarts after a back-off, and/or a
// handler command for selected connections.
//
// Files of a running stack besides the daemon's own:
//   {store path}/app/          the unpacked bundle, kept across restarts
//   {store path}/log/current   the stack's log (see "the stack's log" below)
//   {store path}/log/previous  the log before the last rotation
//   {stack path}/runtime.json  the runtime's state (see runenv_state_write)
//
// Every function here runs on the runtime's only thread; the signal handlers
// only store flags that the control loop reads.
#pragma once

#include <csignal>
#include <cstdint>
#include <sys/types.h>

#include "base/bucket.h"
#include "base/dymarray.h"
#include "base/process.h"
#include "base/socket.h"
#include "protocol/management.h"

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

// ---- texts ---------------------------------------------------------------

// An owned list of texts, null-terminated as argv and environ are once it
// holds one; zero-filled it is empty. Released with runenv_words_release.
struct runenv_words {
  char** items;
  uint32_t count;
};

void runenv_words_push(runenv_words* words, const char* text, uint64_t length);
void runenv_words_release(runenv_words* words);

// ---- the manifest --------------------------------------------------------

enum runenv_restart : int32_t {
  RUNENV_RESTART_ON_FAILURE = 0,  // after a non-zero status or a signal
  RUNENV_RESTART_ALWAYS = 1,  // after any end
  RUNENV_RESTART_NEVER = 2,
};

constexpr uint32_t RUNENV_STOP_TIMEOUT_DEFAULT_S = 5;
constexpr uint32_t RUNENV_STOP_TIMEOUT_MAX_S = 30;

// appsrv.toml:
//   [service]  command = [...], restart = "always"|"on-failure"|"never",
//              stop-timeout = 1..30 (seconds, default 5)
//   [handler]  command = [...]
//   [env]      NAME = "value", ...
// At least one of [service] and [handler]. A command's first word is taken
// relative to app/ when it holds a slash (the command runs in app/), else it
// is looked up along PATH; no shell is involved.
struct runenv_manifest {
  runenv_words service_command;  // empty without [service]
  int32_t restart;  // runenv_restart
  uint32_t stop_timeout_s;
  runenv_words handler_command;  // empty without [handler]
  runenv_words environment;  // "NAME=value" for every [env] entry
};

// Reads and checks {app_path}/appsrv.toml. 0 with `manifest` filled (the
// caller releases it), or -1 with `reason` set to what is wrong and where,
// as in `appsrv.toml line 3: [service] restart: expected ...`; the manifest
// is then empty.
int runenv_manifest_load(const char* app_path, runenv_manifest* manifest, bucket* reason);
void runenv_manifest_release(runenv_manifest* manifest);

// ---- the stack's log -----------------------------------------------------

// {store path}/log/current holds one line per record:
//   2026-11-23T18:20:00.123Z service[4242] the text
// a UTC time stamp (RFC 3339 with milliseconds), the source and the text,
// separated by single blanks. Sources: service[PID] (the service's standard
// output and error), handler[PID] (a handler's standard error) and runtime
// (the runtime's own lines about the stack). The text is as the program wrote
// it, cut into pieces of RUNENV_LOG_LINE_MAX bytes when longer. When current
// passes RUNENV_LOG_ROTATE_SIZE it becomes previous, replacing the one before.
constexpr uint64_t RUNENV_LOG_ROTATE_SIZE = 1024 * 1024;
constexpr uint32_t RUNENV_LOG_LINE_MAX = 4096;

struct runenv_log {
  bucket current_path;
  bucket previous_path;
  int descriptor;  // current, opened for appending; -1 when it cannot be written
  uint64_t size;  // of current
};

// One pipe into the log: a child's end of it is its standard output or error.
struct runenv_log_source {
  int descriptor;  // the runtime's read end, non-blocking
  pid_t pid;  // of the child writing into it
  char label[32];  // "service[4242]"
  uint32_t pending;  // bytes of an unfinished line in `line`
  char line[RUNENV_LOG_LINE_MAX];
};

// Makes {store_path}/log if missing and opens current. 0, or -1 with errno
// (the log then drops its lines).
int runenv_log_open(runenv_log* log, const char* store_path);
void runenv_log_close(runenv_log* log);
// Writes one record. Write errors (a full disk) lose the record, nothing more.
void runenv_log_line(runenv_log* log, const char* source, const char* text, uint64_t length);

// ---- the stack -----------------------------------------------------------

// Largest stack name with its terminator.
constexpr uint64_t RUNENV_NAME_SIZE = MANAGEMENT_NAME_MAX + 1;

enum runenv_service_state : int32_t {
  RUNENV_SERVICE_STARTING = 0,  // started less than RUNENV_SERVICE_SETTLE_MS ago
  RUNENV_SERVICE_RUNNING = 1,
  RUNENV_SERVICE_BACKOFF = 2,  // ended; waiting to be started again
  RUNENV_SERVICE_STOPPED = 3,  // ended for good: restart policy or shutdown
};

// A service counts as running once it has lived this long.
constexpr int64_t RUNENV_SERVICE_SETTLE_MS = 1000;
// The wait before a restart starts at the first, doubles after every end up
// to the last, and returns to the first after a run of RUNENV_BACKOFF_RESET_MS.
constexpr uint32_t RUNENV_BACKOFF_FIRST_MS = 1000;
constexpr uint32_t RUNENV_BACKOFF_MAX_MS = 60000;
constexpr int64_t RUNENV_BACKOFF_RESET_MS = 60000;

struct runenv_service {
  int32_t state;  // runenv_service_state
  pid_t pid;  // leader of the service's process group; 0 while none runs
  uint32_t restarts;  // starts after the first
  int64_t started_at;  // UNIX seconds of the last start, 0 before the first
  int64_t started_ms;  // the same on the monotonic clock
  bool ended;  // the exit fields hold the last end
  int32_t exit_code;  // as process_wait decodes it; -1 when it could not start
  char exit_text[64];
  int64_t exit_at;  // UNIX seconds
  uint32_t backoff_ms;  // the wait after the next end
  int64_t deadline_ms;  // monotonic: end of `starting` or of `backoff`; 0 for none
  bool halted;  // the stack is stopping: no more starts
  // The group of the last run that ended: what its leader left there got
  // SIGTERM, and gets SIGKILL before the next start or at the stack's stop.
  pid_t stray_group;
};

// A handler that runs: the runtime keeps its own copy of the handler's
// connection, so that a session the stack ends by stopping can be told so.
struct runenv_handler {
  pid_t pid;
  int connection;
};

struct runenv_stack {
  bucket key;  // last component of the stack path: names the stack in log lines
  char name[RUNENV_NAME_SIZE];  // what the next handler sees; changed by set_name
  bucket worker_path;  // "{stack path}/os-worker" from the path as given (see runenv_stack_open)
  // Absolute forms: children run elsewhere, so nothing they are given may be
  // relative to the runtime's own working directory.
  bucket stack_path;
  bucket store_path;
  bucket image_path;  // {store path}/serv/image
  bucket deployed_path;  // {store path}/serv/deployed
  bucket app_path;  // {store path}/app
  bucket state_path;  // {stack path}/runtime.json
  socket_record worker;  // the bound os-worker socket, descriptor -1 before
  dymarray handlers;  // runenv_handler of every handler not yet collected
  bool stopping;  // shut down or stopped by a signal: handlers ending now were stopped
  bool bundle;  // the image is a bundle, unpacked in app_path
  runenv_manifest manifest;  // a bundle's
  runenv_service service;  // used when the manifest has a service
  runenv_log log;
  dymarray sources;  // runenv_log_source* of every pipe into the log not yet at its end
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
// Closes os-worker and the log as above and frees what the stack holds;
// children still running are neither signalled nor collected.
void runenv_stack_release(runenv_stack* stack);
// Starts a child of the stack as `options` say, with the environment of the
// stack's children: the runtime's own with the stack's APPSRV_STACK_NAME,
// APPSRV_STACK_PATH and APPSRV_STORE_PATH put in, and for a bundle the
// manifest's [env] over it. What process_spawn returns, errno included.
process* runenv_stack_spawn(runenv_stack* stack, process_options* options);

// Kinds of runtime lines: every one goes to the stack's log; INFO and ERROR
// also to the daemon's output as "Stack 'KEY'[NAME]: TEXT" on standard output
// or "Error: stack 'KEY'[NAME] TEXT" on standard error.
enum runenv_echo : int {
  RUNENV_LOG_ONLY = 0,
  RUNENV_ECHO_INFO = 1,
  RUNENV_ECHO_ERROR = 2,
};

// One runtime line about the stack; the format carries no newline.
void runenv_say(runenv_stack* stack, runenv_echo echo, const char* format, ...) __attribute__((format(printf, 3, 4)));

// ---- pipes into the log ----------------------------------------------------

// A new pipe into the stack's log. Returns the child's write end (the caller
// closes it once the child is started) and keeps the read end among the
// stack's sources, or -1 with errno.
int runenv_source_open(runenv_stack* stack, runenv_log_source** source);
// Names the source after the child that got its write end.
void runenv_source_label(runenv_log_source* source, const char* kind, pid_t pid);
// Reads what the pipe holds into the log, without blocking and at most a
// turn's worth. Returns 0 when the pipe is empty, 1 when more may be there,
// -1 once it has ended (its last unfinished line written).
int runenv_source_read(runenv_stack* stack, runenv_log_source* source);
// Reads whatever the sources of `pid` hold now: a child that has ended has
// all its output in the pipe, and it belongs in the log before its end.
void runenv_source_drain(runenv_stack* stack, pid_t pid);
// Takes a source that has ended, or one whose child never started, out of
// the stack and frees it.
void runenv_source_close(runenv_stack* stack, runenv_log_source* source);

// ---- application image ---------------------------------------------------

// 0 when the file at `path` is an executable image: a regular file that
// starts with the ELF magic or with "#!". -1 otherwise, with `*reason` set to
// a constant text saying why.
int runenv_image_check(const char* path, const char** reason);
// Adds an execute bit for every read bit of the file. 0 or -1 with errno.
int runenv_image_make_executable(const char* path);

// The unpacked size may not pass the store's free space less this much.
constexpr uint64_t RUNENV_BUNDLE_SPARE = 64ull * 1024 * 1024;

enum : int { RUNENV_BUNDLE_UNPACKED = 0, RUNENV_BUNDLE_REFUSED = -1, RUNENV_BUNDLE_NOT_ARCHIVE = 1 };

// Unpacks the tar archive at `image_path` (plain, gzip or zstd) into the new
// directory `app_path`, checking every entry before it is written: no
// absolute path, no ".." component, no link that leads outside app/, no
// device, fifo or socket, and no more unpacked bytes than the free space of
// app's file system less RUNENV_BUNDLE_SPARE. Owners and set-id bits are not
// restored. Nothing is written outside `app_path`; after a refusal nothing of
// it is left. RUNENV_BUNDLE_REFUSED comes with `reason` saying what and where.
int runenv_bundle_unpack(const char* image_path, const char* app_path, bucket* reason);

// Appends `length` bytes of `text` to a refusal's reason in double quotes,
// quotes and backslashes escaped and control bytes as \xNN: the reason
// reaches the uploader's terminal and the daemon's log. Past 200 bytes the
// rest is shown as "...".
void runenv_append_quoted(bucket* reason, const char* text, size_t length);

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
// A start of a deployed stack: a bundle's manifest is read again from app/
// (never unpacked again), and os-worker is bound. 0, or 1 after a log line.
int runenv_resume(runenv_stack* stack);

// ---- handlers ------------------------------------------------------------

// Runs the stack's handler with `connection` as its standard input and
// output and its standard error into the log: the image itself in the stack
// path, or a bundle's [handler] command in app/. A bundle without one
// answers with one line saying so. The connection record is taken over on
// every path: closed, or kept with the handler until it ends. 0 when the
// handler was executed, -1 after a log line.
int runenv_handler_start(runenv_stack* stack, socket_record* connection);
// Takes an ended handler off the list, logs its end and closes the runtime's
// copy of its connection, after the session-stopped line when the stack is
// stopping; false when `pid` is no handler.
bool runenv_handler_collect(runenv_stack* stack, pid_t pid, int wait_status);
// Sends `signal_number` to every running handler.
void runenv_handler_signal(runenv_stack* stack, int signal_number);

// ---- the service ---------------------------------------------------------

// Starts the manifest's service: in app/, standard input /dev/null, standard
// output and error into the log, in a process group of its own, killed if
// the runtime dies. A start that fails counts as an end.
void runenv_service_start(runenv_stack* stack);
// Settles the end of the service's process and decides on a restart; false
// when `pid` is not the service.
bool runenv_service_collect(runenv_stack* stack, pid_t pid, int wait_status);
// Acts on the service's deadline once it has come: `starting` becomes
// `running`, a back-off ends in a restart.
void runenv_service_tick(runenv_stack* stack);
// No more starts: a back-off ends as `stopped`, a running service is sent
// `signal_number` (0 for none) to its whole group.
void runenv_service_halt(runenv_stack* stack, int signal_number);

// ---- state for the operator's tools ----------------------------------------

// Replaces {stack path}/runtime.json (a temporary file renamed over it) with
//   {"mode": "service"|"handler",
//    "service": {"pid": N|null, "state": "starting"|"running"|"backoff"|"stopped",
//                "restarts": N, "started": UNIX_SECONDS|null,
//                "last_exit": {"code": N, "text": "...", "at": UNIX_SECONDS}|null}|null,
//    "handlers": N}
// on one line. "service" is null for a stack without one.
void runenv_state_write(runenv_stack* stack);

// ---- control loop --------------------------------------------------------

// Set by the SIGTERM and SIGINT handlers to the signal's number.
extern volatile sig_atomic_t runenv_stop_signal;
// Installs the handlers of SIGTERM, SIGINT (stop) and SIGCHLD (wake the
// loop), and blocks the three: the loop takes them only while it waits, so
// that none slips in between a check and the wait.
void runenv_install_signals();

// Receives and handles one datagram from os-worker. Returns 1 when the
// message asked the runtime to shut down, 0 otherwise (malformed messages
// included: they are logged and dropped).
int runenv_control_receive(runenv_stack* stack);
// Runs the stack until a shutdown message or a stop signal: the service,
// os-worker, the pipes into the log, the ends of children. Then stops the
// service and the handlers (SIGTERM, their time, SIGKILL) and returns the
// process exit status.
int runenv_serve(runenv_stack* stack);

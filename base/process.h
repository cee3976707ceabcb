// Starting child programs, optionally as jobs (leaders of their own process
// group, so that everything they start can be signalled at once), telling
// whether they still run, collecting and decoding their end, signalling them.
//
// A creation either returns a started child or fails: a start failure in the
// child (missing program, bad working directory, ...) comes back through a
// close-on-exec report pipe before the call returns, and the failed child has
// been collected by then. Only descriptors whose close-on-exec flag is clear
// pass to the child (see socket_inherit), and none of those either when the
// caller asks for the others closed; everything else stays behind. Every
// child starts with default signal dispositions and an empty signal mask.
#pragma once

#include <cstdint>

struct process {
  int32_t pid;  // for a job also its process group
  bool reaped;  // collected; `wait_status` holds its end and pid is not waited for again
  int32_t wait_status;  // raw waitpid status, 0 until reaped
};

// `description` is a static text the caller does not free; strsignal and
// strerror texts stay valid only until the next such call.
struct process_status {
  int32_t code;
  const char* description;
};

// How process_spawn starts a child. Fields not set keep their defaults:
// everything inherited from the caller, no new group, no parent-death signal.
struct process_options {
  const char* const* argv;  // null-terminated; argv[0] is looked up along the child's PATH when it holds no slash
  const char* const* environment = nullptr;  // null-terminated "NAME=value" list; null keeps the caller's
  const char* working_directory = nullptr;  // null keeps the caller's
  int stdio[3] = {-1, -1, -1};  // descriptor to become 0, 1, 2 in the child; -1 keeps the caller's
  bool job = false;  // lead a new process group whose id is the child's pid
  // Close every descriptor above 2 in the child, even one whose close-on-exec
  // flag is clear; otherwise such descriptors pass (see socket_inherit).
  bool close_others = false;
  int death_signal = 0;  // sent to the child when the caller ends; 0 for none
};

// Starts a child as `options` say. Whatever the caller set, the child starts
// with the default disposition for every signal and an empty signal mask.
// Returns a record the caller releases with process_destroy, or null with
// errno saying why: the caller's own failure (pipe, fork) or the one the child
// reported (dup2, chdir, setpgid, exec). No descriptor of the call is left
// open either way, and a failed child has been collected.
process* process_spawn(const process_options* options);

// Redirection of a standard stream.
enum : int {
  PROCESS_INHERIT = 0,  // keep the daemon's descriptor
  PROCESS_FILE = 1,  // connect the stream to the named file
};

// process_spawn with the daemon's environment and the descriptors it left
// inheritable. Starts `argv[0]` (looked up along PATH when it holds no slash)
// with the null-terminated `argv`. Each standard stream in PROCESS_FILE mode is
// connected to its path: stdin to an existing file that must be openable for
// reading and writing, stdout and stderr to a file created or truncated with
// mode 0644. A null `working_directory` keeps the caller's. With `job` the
// child leads a new process group whose id is its pid.
// Returns a record the caller releases with process_destroy, or null when
// nothing was started; no descriptor of the call is left open either way.
process* process_create_child(const char* const argv[], int stdin_mode, const char* stdin_path,
                              int stdout_mode, const char* stdout_path,
                              const char* working_directory, int stderr_mode,
                              const char* stderr_path, bool job);
process* process_create(const char* const argv[], const char* working_directory);
process* process_create_job(const char* const argv[], const char* working_directory);

// True while the child runs. Collects it without blocking when it has ended;
// a pid that is not our child reads as running.
bool process_alive(process* child);
// SIGTERM to the child, or to its whole process group (which still works
// after the leader was collected, as long as a member lives). kill's result.
int process_kill(process* child);
int process_kill_job(process* child);
// Blocks until the child ends (unless already collected) and decodes its end:
// exit 0 -> {0, "success"}; exit n -> {n, "failure"}; signal s ->
// {s, strsignal(s)}; stopped -> {-1, "unknown status code"}. A failed or
// interrupted waitpid gives {-1, strerror} and leaves the record unreaped.
// Repeatable once collected.
process_status process_wait(process* child);
// Releases the record only: the child is neither signalled nor collected.
void process_destroy(process* child);
// Replaces the calling process by the program; aborts if that fails.
[[noreturn]] void process_exec(const char* const argv[]);

// Child programs and jobs, with start failures reported back synchronously
// through a close-on-exec pipe.
#include "base/process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/runtime.h"

extern char** environ;

namespace {

// Descriptor 0 is never closed here: -1 and 0 both stand for nothing of ours.
void close_descriptor(int* descriptor) {
  if (*descriptor > 0) close(*descriptor);
  *descriptor = -1;
}

// A standard stream of process_create_child connected to a file: the file is
// opened twice, and `used` is the one the child gets as `target`.
struct redirect {
  int mode;
  int target;
  int used = -1;
  int twin = -1;
};

void close_redirects(redirect* streams) {
  for (int i = 0; i < 3; ++i) {
    close_descriptor(&streams[i].used);
    close_descriptor(&streams[i].twin);
  }
}

int open_redirect(redirect* stream, const char* path) {
  if (stream->mode == PROCESS_INHERIT) return 0;
  bool input = stream->target == STDIN_FILENO;
  int create = input ? 0 : O_CREAT | O_TRUNC;
  int reading = open(path, O_RDONLY | O_CLOEXEC | create, 0644);
  if (reading < 0) return -1;
  int writing = open(path, O_WRONLY | O_CLOEXEC | create, 0644);
  if (writing < 0) {
    close_descriptor(&reading);
    return -1;
  }
  stream->used = input ? reading : writing;
  stream->twin = input ? writing : reading;
  return 0;
}

// Everything below up to execvp runs in the child between fork and exec, so
// it calls only async-signal-safe functions: no allocation, no stdio, no
// logging. glibc's execvp searches PATH in a buffer on the stack.

// An ignored signal would stay ignored across exec (the daemon ignores
// SIGPIPE), and a caught one would run the caller's handler in this copy
// until exec. Every signal is blocked while this runs, so none slips through
// before its disposition is reset. KILL, STOP and libc's own refuse; so be it.
void reset_dispositions() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  for (int number = 1; number < NSIG; ++number) sigaction(number, &action, nullptr);
}

// Puts the chosen descriptors onto 0, 1 and 2. A source that is itself one of
// the three targets is first copied out of the way, so that no dup2 clobbers
// a source still to be used; dup2 leaves the copy without close-on-exec, and
// a source already on its target only has the flag cleared.
bool move_stdio(const int (&wanted)[3]) {
  int source[3] = {wanted[0], wanted[1], wanted[2]};
  for (int target = 0; target < 3; ++target) {
    if (source[target] < 0 || source[target] > 2 || source[target] == target) continue;
    source[target] = fcntl(source[target], F_DUPFD_CLOEXEC, 3);
    if (source[target] < 0) return false;
  }
  for (int target = 0; target < 3; ++target) {
    if (source[target] < 0) continue;
    if (source[target] == target) {
      int flags = fcntl(target, F_GETFD);
      if (flags < 0 || fcntl(target, F_SETFD, flags & ~FD_CLOEXEC) != 0) return false;
    } else if (dup2(source[target], target) < 0) {
      return false;
    }
  }
  return true;
}

// Marks every descriptor above 2 close-on-exec rather than closing it, so
// that the report pipe stays usable until exec. Kernels before 5.11 lack the
// flag; the slow walk up to the descriptor limit does the same there.
bool seal_others() {
  if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return true;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  for (rlim_t number = 3; number < limit.rlim_cur; ++number) fcntl(static_cast<int>(number), F_SETFD, FD_CLOEXEC);
  return true;
}

// A parent that ended before the signal was armed would never deliver it.
bool arm_death_signal(int number, pid_t parent) {
  if (prctl(PR_SET_PDEATHSIG, number) != 0) return false;
  if (getppid() == parent) return true;
  errno = ESRCH;
  return false;
}

// Any failure writes errno to the report pipe and ends the child with status 1.
[[noreturn]] void start_child(const process_options* options, pid_t parent, int report) {
  reset_dispositions();
  bool ready = options->death_signal == 0 || arm_death_signal(options->death_signal, parent);
  if (ready) ready = move_stdio(options->stdio);
  if (ready && options->working_directory != nullptr) ready = chdir(options->working_directory) == 0;
  if (ready && options->job) ready = setpgid(0, 0) == 0;
  if (ready && options->close_others) ready = seal_others();
  if (ready) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (options->environment != nullptr) environ = const_cast<char**>(options->environment);
    execvp(options->argv[0], const_cast<char* const*>(options->argv));
  }
  int error = errno != 0 ? errno : EINVAL;
  ssize_t written = write(report, &error, sizeof error);
  (void)written;  // nobody is left to tell
  _exit(1);
}

// 0 when the child executed its program (its write end closed on exec
// without a word), else the error it reported. A signal that interrupts the
// read is not a report, so the read is simply made again.
int child_report(int report) {
  int error = 0;
  ssize_t got;
  do {
    got = read(report, &error, sizeof error);
  } while (got < 0 && errno == EINTR);
  if (got == 0) return 0;
  return got == sizeof error && error != 0 ? error : EIO;
}

// The failed child ends right after its report; collect it so that no zombie
// is left behind.
void collect_failed(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

process_status decode(int status) {
  int signal_number = status & 0x7f;
  if (signal_number == 0) {
    int code = (status >> 8) & 0xff;
    if (code == 0) return {0, "success"};
    return {code, "failure"};
  }
  if (signal_number == 0x7f) return {-1, "unknown status code"};
  return {signal_number, strsignal(signal_number)};
}

}  // namespace

process* process_spawn(const process_options* options) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return nullptr;
  // The child starts with every signal blocked and unblocks them only once
  // their dispositions are back to default.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &previous);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) start_child(options, parent, report[1]);
  int error = errno;
  sigprocmask(SIG_SETMASK, &previous, nullptr);

  close_descriptor(&report[1]);
  if (pid > 0) error = child_report(report[0]);
  close_descriptor(&report[0]);
  if (pid < 0 || error != 0) {
    if (pid > 0) collect_failed(pid);
    errno = error;
    return nullptr;
  }
  auto* child = static_cast<process*>(runtime_zalloc(sizeof(process)));
  child->pid = pid;
  return child;
}

process* process_create_child(const char* const argv[], int stdin_mode, const char* stdin_path,
                              int stdout_mode, const char* stdout_path,
                              const char* working_directory, int stderr_mode,
                              const char* stderr_path, bool job) {
  redirect streams[3] = {{stdin_mode, STDIN_FILENO}, {stdout_mode, STDOUT_FILENO},
                         {stderr_mode, STDERR_FILENO}};
  const char* paths[3] = {stdin_path, stdout_path, stderr_path};
  for (int i = 0; i < 3; ++i) {
    if (open_redirect(&streams[i], paths[i]) == 0) continue;
    close_redirects(streams);
    return nullptr;
  }
  process_options options{.argv = argv, .working_directory = working_directory, .job = job};
  for (int i = 0; i < 3; ++i) options.stdio[i] = streams[i].used;
  process* child = process_spawn(&options);
  close_redirects(streams);
  return child;
}

process* process_create(const char* const argv[], const char* working_directory) {
  return process_create_child(argv, PROCESS_INHERIT, nullptr, PROCESS_INHERIT, nullptr,
                              working_directory, PROCESS_INHERIT, nullptr, false);
}

process* process_create_job(const char* const argv[], const char* working_directory) {
  return process_create_child(argv, PROCESS_INHERIT, nullptr, PROCESS_INHERIT, nullptr,
                              working_directory, PROCESS_INHERIT, nullptr, true);
}

bool process_alive(process* child) {
  if (child->reaped) return false;
  int status = 0;
  if (waitpid(child->pid, &status, WNOHANG) != child->pid) return true;
  child->wait_status = status;
  child->reaped = true;
  return false;
}

int process_kill(process* child) { return kill(child->pid, SIGTERM); }

int process_kill_job(process* child) { return kill(-child->pid, SIGTERM); }

process_status process_wait(process* child) {
  if (!child->reaped) {
    int status = 0;
    if (waitpid(child->pid, &status, 0) != child->pid) return {-1, strerror(errno)};
    child->wait_status = status;
    child->reaped = true;
  }
  return decode(child->wait_status);
}

void process_destroy(process* child) { free(child); }

void process_exec(const char* const argv[]) {
  execvp(argv[0], const_cast<char* const*>(argv));
  abort();
}

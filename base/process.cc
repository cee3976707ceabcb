// Child programs and jobs, with start failures reported back synchronously
// through a close-on-exec pipe.
#include "base/process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/runtime.h"

namespace {

// A standard stream connected to a file: the file is opened twice, and
// `used` is the one the child puts onto `target`.
struct redirect {
  int mode;
  int target;
  int used = -1;
  int twin = -1;
};

// Descriptor 0 is never closed here: -1 and 0 both stand for nothing of ours.
void close_descriptor(int* descriptor) {
  if (*descriptor > 0) close(*descriptor);
  *descriptor = -1;
}

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

// In the child. dup2 leaves the copy without close-on-exec; a file that
// already landed on its target number (the daemon had that stream closed)
// only has the flag cleared and is kept.
int move_onto_target(const redirect* stream) {
  if (stream->mode == PROCESS_INHERIT) return 0;
  if (stream->used == stream->target) {
    int flags = fcntl(stream->used, F_GETFD);
    if (flags < 0 || fcntl(stream->used, F_SETFD, flags & ~FD_CLOEXEC) != 0) return -1;
  } else if (dup2(stream->used, stream->target) < 0) {
    return -1;
  }
  if (stream->used != stream->target && stream->used > 0) close(stream->used);
  if (stream->twin != stream->target && stream->twin > 0) close(stream->twin);
  return 0;
}

// Runs between fork and exec, so it calls only async-signal-safe functions:
// no allocation, no stdio, no logging. glibc's execvp searches PATH in a
// buffer on the stack. Any failure writes errno to the report pipe and ends
// the child with status 1.
[[noreturn]] void start_child(const char* const argv[], const redirect* streams,
                              const char* working_directory, bool job, int report) {
  bool ready = true;
  for (int i = 0; i < 3 && ready; ++i) ready = move_onto_target(&streams[i]) == 0;
  if (ready && working_directory != nullptr) ready = chdir(working_directory) == 0;
  if (ready && job) ready = setpgid(0, 0) == 0;
  if (ready) execvp(argv[0], const_cast<char* const*>(argv));
  int error = errno;
  ssize_t written = write(report, &error, sizeof error);
  (void)written;  // nobody is left to tell
  _exit(1);
}

// End of file means exec succeeded (the child's write end closed on exec);
// anything else is a report. A signal that interrupts the read is not a
// report, so the read is simply made again.
bool child_started(int report) {
  int error = 0;
  ssize_t got;
  do {
    got = read(report, &error, sizeof error);
  } while (got < 0 && errno == EINTR);
  return got == 0;
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

process* process_create_child(const char* const argv[], int stdin_mode, const char* stdin_path,
                              int stdout_mode, const char* stdout_path,
                              const char* working_directory, int stderr_mode,
                              const char* stderr_path, bool job) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return nullptr;

  redirect streams[3] = {{stdin_mode, STDIN_FILENO}, {stdout_mode, STDOUT_FILENO},
                         {stderr_mode, STDERR_FILENO}};
  const char* paths[3] = {stdin_path, stdout_path, stderr_path};
  bool opened = true;
  for (int i = 0; i < 3 && opened; ++i) opened = open_redirect(&streams[i], paths[i]) == 0;
  pid_t pid = opened ? fork() : -1;
  if (pid == 0) start_child(argv, streams, working_directory, job, report[1]);

  close_descriptor(&report[1]);
  bool started = pid > 0 && child_started(report[0]);
  close_descriptor(&report[0]);
  close_redirects(streams);
  if (!started) {
    if (pid > 0) collect_failed(pid);
    return nullptr;
  }
  auto* child = static_cast<process*>(runtime_zalloc(sizeof(process)));
  child->pid = pid;
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

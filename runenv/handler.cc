// Handlers: one run of the application image per connection handed to the
// stack, inetd-style, and their collection when they end.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/process.h"
#include "base/runtime.h"
#include "runenv/runenv.h"

extern char** environ;

namespace {

constexpr const char* stack_variables[3] = {"APPSRV_STACK_NAME=", "APPSRV_STACK_PATH=", "APPSRV_STORE_PATH="};

bool is_stack_variable(const char* entry) {
  for (const char* prefix : stack_variables)
    if (strncmp(entry, prefix, strlen(prefix)) == 0) return true;
  return false;
}

// The runtime's own environment with the stack's three variables put in
// (replacing any inherited ones). Built before fork, because the child may
// not allocate. The array is freed with free(); the entries of the three
// variables live in `values`, the others in the runtime's environment.
char** build_environment(runenv_stack* stack, bucket values[3]) {
  size_t count = 0;
  while (environ[count] != nullptr) ++count;
  auto** entries = static_cast<char**>(runtime_malloc((count + 4) * sizeof(char*)));
  size_t used = 0;
  for (size_t i = 0; i < count; ++i)
    if (!is_stack_variable(environ[i])) entries[used++] = environ[i];
  bucket_appendv(&values[0], stack_variables[0], stack->name, nullptr);
  bucket_appendv(&values[1], stack_variables[1], bucket_cstring(&stack->stack_path), nullptr);
  bucket_appendv(&values[2], stack_variables[2], bucket_cstring(&stack->store_path), nullptr);
  for (int i = 0; i < 3; ++i) entries[used++] = bucket_cstring(&values[i]);
  entries[used] = nullptr;
  return entries;
}

// Between fork and exec: async-signal-safe calls only. A failure goes back
// to the parent as an errno value through the report pipe.
[[noreturn]] void run_child(int connection, const char* directory, const char* image, char* const environment[],
                            int report, const sigset_t* mask) {
  // Dispositions the runtime set must not reach the application: an ignored
  // signal would stay ignored across exec, a caught one would run our
  // handler in this copy. Then the mask blocked around fork comes off, and a
  // stop signal that arrived meanwhile ends the child as it should.
  for (int number : {SIGPIPE, SIGTERM, SIGINT, SIGCHLD}) signal(number, SIG_DFL);
  sigprocmask(SIG_SETMASK, mask, nullptr);
  if (dup2(connection, 0) >= 0 && dup2(connection, 1) >= 0 && chdir(directory) == 0) {
    // The runtime's descriptors are close-on-exec already; this also stops
    // one that the runtime's own parent left inheritable from reaching
    // application code.
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    char* const argv[] = {const_cast<char*>(image), nullptr};
    execve(image, argv, environment);
  }
  int error = errno;
  (void)!write(report, &error, sizeof error);
  _exit(127);
}

// The child's errno when it could not execute the image, 0 when it did
// (the report pipe closed on exec without a word).
int read_report(int report) {
  int error = 0;
  size_t got = 0;
  while (got < sizeof error) {
    ssize_t n = read(report, reinterpret_cast<char*>(&error) + got, sizeof error - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  return got == sizeof error ? error : 0;
}

void collect_now(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void forget(runenv_stack* stack, pid_t pid, int wait_status) {
  uint64_t count = dymarray_size(&stack->handlers);
  for (uint64_t i = 0; i < count; ++i) {
    if (*static_cast<pid_t*>(dymarray_at(&stack->handlers, i)) != pid) continue;
    dymarray_swap(&stack->handlers, i, count - 1);
    dymarray_pop_back(&stack->handlers);
    break;
  }
  // The process family decodes an end it did not collect itself just the
  // same, given a record that says it was collected.
  process ended{pid, true, wait_status};
  process_status status = process_wait(&ended);
  runtime_log("Stack '%s'[%s]: handler %d ended, %s (%d)\n", bucket_cstring(&stack->key), stack->name,
              static_cast<int>(pid), status.description, status.code);
}

void wait_for_handlers(runenv_stack* stack, uint32_t milliseconds) {
  int64_t deadline = runtime_getclock() + milliseconds;
  for (;;) {
    runenv_handler_reap(stack);
    if (dymarray_size(&stack->handlers) == 0 || runtime_getclock() >= deadline) return;
    runtime_sleep(10);
  }
}

}  // namespace

int runenv_handler_start(runenv_stack* stack, socket_record* connection) {
  const char* key = bucket_cstring(&stack->key);
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    runtime_err("Error: stack '%s'[%s] handler not started, pipe: %s\n", key, stack->name, strerror(errno));
    socket_close(connection);
    return -1;
  }
  bucket values[3] = {};
  char** environment = build_environment(stack, values);
  const char* directory = bucket_cstring(&stack->stack_path);
  const char* image = bucket_cstring(&stack->image_path);

  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &previous);
  pid_t pid = fork();
  if (pid == 0) run_child(connection->descriptor, directory, image, environment, report[1], &previous);
  int fork_error = errno;
  sigprocmask(SIG_SETMASK, &previous, nullptr);

  close(report[1]);
  free(environment);
  for (bucket& value : values) bucket_release(&value);
  // The handler holds its own copy of the connection now.
  socket_close(connection);
  if (pid < 0) {
    close(report[0]);
    runtime_err("Error: stack '%s'[%s] handler not started, fork: %s\n", key, stack->name, strerror(fork_error));
    return -1;
  }
  int error = read_report(report[0]);
  close(report[0]);
  if (error != 0) {
    collect_now(pid);
    runtime_err("Error: stack '%s'[%s] handler not started, %s\n", key, stack->name, strerror(error));
    return -1;
  }
  *static_cast<pid_t*>(dymarray_alloc(&stack->handlers)) = pid;
  runtime_log("Stack '%s'[%s]: handler %d started\n", key, stack->name, static_cast<int>(pid));
  return 0;
}

void runenv_handler_reap(runenv_stack* stack) {
  for (;;) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid < 0 && errno == EINTR) continue;
    if (pid <= 0) return;  // none ended yet, or no child at all
    forget(stack, pid, status);
  }
}

void runenv_handler_signal(runenv_stack* stack, int signal_number) {
  uint64_t count = dymarray_size(&stack->handlers);
  for (uint64_t i = 0; i < count; ++i) kill(*static_cast<pid_t*>(dymarray_at(&stack->handlers, i)), signal_number);
}

void runenv_handler_stop_all(runenv_stack* stack, uint32_t grace_ms) {
  runenv_handler_reap(stack);
  if (dymarray_size(&stack->handlers) == 0) return;
  runenv_handler_signal(stack, SIGTERM);
  wait_for_handlers(stack, grace_ms);
  uint64_t left = dymarray_size(&stack->handlers);
  if (left == 0) return;
  runtime_err("Error: stack '%s'[%s] %llu handlers outlived SIGTERM, killing them\n", bucket_cstring(&stack->key),
              stack->name, static_cast<unsigned long long>(left));
  runenv_handler_signal(stack, SIGKILL);
  wait_for_handlers(stack, 1000);
}

// The runtime's loop: one wait over os-worker, the pipes into the log and
// the service's next deadline, with the signals taken only during that wait;
// then the stop, which keeps the log flowing while the children end.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/wait.h>
#include <vector>

#include "base/runtime.h"
#include "runenv/runenv.h"

volatile sig_atomic_t runenv_stop_signal = 0;

namespace {

// A stack without a service gives its handlers this long after SIGTERM.
constexpr int64_t kHandlerGraceMs = 3000;
// A stop signal comes from the daemon forcing the stop: it kills the
// runtime's group 5 s after its SIGTERM, and the service, in a group of its
// own, must be gone by then.
constexpr int64_t kForcedGraceMs = 3000;
// After SIGKILL the last ends come at once; this only bounds a process the
// kernel holds up.
constexpr int64_t kKilledWaitMs = 1000;
// Pipes still open when the runtime leaves get this many reads each.
constexpr int kFinalReads = 16;
// What the service started is no child of the runtime, and its end wakes
// nothing: while only such processes are left, the loop looks this often.
constexpr int64_t kGroupCheckMs = 100;

volatile sig_atomic_t child_ended = 0;

void on_stop(int number) { runenv_stop_signal = number; }
void on_child(int) { child_ended = 1; }

void install(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = number == SIGCHLD ? SA_NOCLDSTOP : 0;
  sigemptyset(&action.sa_mask);
  sigaction(number, &action, nullptr);
}

struct stop_plan {
  bool active;
  bool killed;  // SIGKILL went out
  int64_t kill_at;  // monotonic
  int64_t leave_at;
  // The service's groups when the stop began, the running one and what an
  // ended run left; each ends when its last member does.
  pid_t groups[2];
};

bool has_service(const runenv_stack* stack) { return stack->manifest.service_command.count > 0; }

int64_t grace_ms(const runenv_stack* stack, bool forced) {
  int64_t grace = has_service(stack) ? int64_t{stack->manifest.stop_timeout_s} * 1000 : kHandlerGraceMs;
  return forced && grace > kForcedGraceMs ? kForcedGraceMs : grace;
}

// SIGTERM to the service's group and to the handlers, and no more starts. A
// stop signal during a stop only shortens the wait.
void begin_stop(runenv_stack* stack, stop_plan* stop, bool forced) {
  int64_t kill_at = runtime_getclock() + grace_ms(stack, forced);
  if (stop->active) {
    if (kill_at < stop->kill_at) stop->kill_at = kill_at;
    return;
  }
  if (forced)
    runenv_say(stack, RUNENV_ECHO_INFO, "%s, stopping", strsignal(runenv_stop_signal));
  else
    runenv_say(stack, RUNENV_ECHO_INFO, "shutting down");
  stop->active = true;
  stack->stopping = true;
  stop->kill_at = kill_at;
  stop->groups[0] = stack->service.pid;
  stop->groups[1] = stack->service.stray_group;
  runenv_stack_close(stack);
  runenv_service_halt(stack, SIGTERM);
  runenv_handler_signal(stack, SIGTERM);
}

bool children_gone(const runenv_stack* stack) {
  return stack->service.pid == 0 && dymarray_size(&stack->handlers) == 0;
}

bool group_alive(const stop_plan* stop) {
  for (pid_t group : stop->groups)
    if (group > 0 && kill(-group, 0) == 0) return true;
  return false;
}

// SIGKILL once the grace is over; false once the runtime leaves whatever
// is left.
bool press(runenv_stack* stack, stop_plan* stop) {
  int64_t now = runtime_getclock();
  if (stop->killed) return now < stop->leave_at;
  if (now < stop->kill_at) return true;
  uint64_t handlers = dymarray_size(&stack->handlers);
  if (handlers == 0)
    runenv_say(stack, RUNENV_ECHO_ERROR, "the service outlived SIGTERM, killing it");
  else
    runenv_say(stack, RUNENV_ECHO_ERROR, "%s%llu handlers outlived SIGTERM, killing them",
               group_alive(stop) ? "the service and " : "", static_cast<unsigned long long>(handlers));
  for (pid_t group : stop->groups)
    if (group > 0) kill(-group, SIGKILL);
  runenv_handler_signal(stack, SIGKILL);
  stop->killed = true;
  stop->leave_at = now + kKilledWaitMs;
  return true;
}

void reap(runenv_stack* stack) {
  for (;;) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid < 0 && errno == EINTR) continue;
    if (pid <= 0) return;  // none ended yet, or no child at all
    if (!runenv_service_collect(stack, pid, status)) runenv_handler_collect(stack, pid, status);
  }
}

// Milliseconds to the next thing due, -1 for none.
int64_t next_wait(const runenv_stack* stack, const stop_plan* stop) {
  int64_t due = -1;
  if (stop->active) due = stop->killed ? stop->leave_at : stop->kill_at;
  else if (stack->service.deadline_ms != 0) due = stack->service.deadline_ms;
  if (due < 0) return -1;
  int64_t left = due - runtime_getclock();
  if (stop->active && children_gone(stack) && left > kGroupCheckMs) left = kGroupCheckMs;
  return left > 0 ? left : 0;
}

// One wait, with the blocked signals let in; then whatever became readable.
void wait_once(runenv_stack* stack, stop_plan* stop) {
  std::vector<pollfd> entries;
  std::vector<runenv_log_source*> sources;
  for (uint64_t i = 0; i < dymarray_size(&stack->sources); ++i) {
    sources.push_back(*static_cast<runenv_log_source**>(dymarray_at(&stack->sources, i)));
    entries.push_back({sources.back()->descriptor, POLLIN, 0});
  }
  if (stack->worker.descriptor >= 0) entries.push_back({stack->worker.descriptor, POLLIN, 0});
  int64_t wait_ms = next_wait(stack, stop);
  timespec timeout{wait_ms / 1000, (wait_ms % 1000) * 1000000};
  sigset_t none;
  sigemptyset(&none);
  if (ppoll(entries.data(), entries.size(), wait_ms >= 0 ? &timeout : nullptr, &none) <= 0) return;
  for (size_t i = 0; i < sources.size(); ++i)
    if (entries[i].revents != 0 && runenv_source_read(stack, sources[i]) < 0) runenv_source_close(stack, sources[i]);
  if (entries.size() > sources.size() && entries.back().revents != 0 && runenv_control_receive(stack) == 1)
    begin_stop(stack, stop, false);
}

// What the pipes still hold goes into the log.
void finish(runenv_stack* stack) {
  for (uint64_t i = 0; i < dymarray_size(&stack->sources); ++i) {
    auto* source = *static_cast<runenv_log_source**>(dymarray_at(&stack->sources, i));
    for (int reads = 0; reads < kFinalReads && runenv_source_read(stack, source) == 1; ++reads) {
    }
  }
  runenv_state_write(stack);
  runenv_say(stack, RUNENV_ECHO_INFO, "stopped");
}

}  // namespace

void runenv_install_signals() {
  install(SIGTERM, on_stop);
  install(SIGINT, on_stop);
  install(SIGCHLD, on_child);
  sigset_t loop_only;
  sigemptyset(&loop_only);
  for (int number : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&loop_only, number);
  sigprocmask(SIG_BLOCK, &loop_only, nullptr);
}

int runenv_serve(runenv_stack* stack) {
  runenv_say(stack, RUNENV_ECHO_INFO, "serving on %s", bucket_cstring(&stack->worker_path));
  if (has_service(stack)) runenv_service_start(stack);
  runenv_state_write(stack);
  stop_plan stop{};
  for (;;) {
    if (child_ended != 0) {
      child_ended = 0;
      reap(stack);
    }
    if (runenv_stop_signal != 0) begin_stop(stack, &stop, true);
    if (stop.active && ((children_gone(stack) && !group_alive(&stop)) || !press(stack, &stop))) break;
    if (!stop.active) runenv_service_tick(stack);
    wait_once(stack, &stop);
  }
  finish(stack);
  return 0;
}

// The service: a bundle's long-running process, started with the stack and
// restarted after its end as the manifest's policy says, with a back-off
// that keeps a crash loop to one start per interval.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "base/process.h"
#include "base/runtime.h"
#include "runenv/runenv.h"

namespace {

const char* policy_name(int32_t restart) {
  switch (restart) {
    case RUNENV_RESTART_ALWAYS: return "always";
    case RUNENV_RESTART_NEVER: return "never";
    default: return "on-failure";
  }
}

// A signal's end has its number for a code, a failed start -1: only a clean
// exit has 0.
bool restart_wanted(const runenv_stack* stack, int32_t code) {
  if (stack->service.halted) return false;
  switch (stack->manifest.restart) {
    case RUNENV_RESTART_ALWAYS: return true;
    case RUNENV_RESTART_NEVER: return false;
    default: return code != 0;
  }
}

void record_end(runenv_service* service, int32_t code, const char* text) {
  service->ended = true;
  service->exit_code = code;
  snprintf(service->exit_text, sizeof service->exit_text, "%s", text);
  service->exit_at = time(nullptr);
  service->pid = 0;
  service->deadline_ms = 0;
}

// After an end: a back-off before the next start, or the service stays down.
// A run that lasted long enough shows the service healthy again, so its
// next crash waits the shortest time.
void after_end(runenv_stack* stack, bool had_run, const char* what) {
  runenv_service* service = &stack->service;
  if (!restart_wanted(stack, service->exit_code)) {
    service->state = RUNENV_SERVICE_STOPPED;
    if (service->halted)
      runenv_say(stack, RUNENV_LOG_ONLY, "%s", what);
    else
      runenv_say(stack, RUNENV_LOG_ONLY, "%s; not restarted (restart = \"%s\")", what,
                 policy_name(stack->manifest.restart));
    runenv_state_write(stack);
    return;
  }
  if (had_run && runtime_getclock() - service->started_ms >= RUNENV_BACKOFF_RESET_MS)
    service->backoff_ms = RUNENV_BACKOFF_FIRST_MS;
  uint32_t delay = service->backoff_ms;
  service->backoff_ms = delay * 2 < RUNENV_BACKOFF_MAX_MS ? delay * 2 : RUNENV_BACKOFF_MAX_MS;
  service->state = RUNENV_SERVICE_BACKOFF;
  service->deadline_ms = runtime_getclock() + delay;
  runenv_say(stack, RUNENV_LOG_ONLY, "%s; restarting in %u s", what, delay / 1000);
  runenv_state_write(stack);
}

void start_failed(runenv_stack* stack, int error) {
  record_end(&stack->service, -1, strerror(error));
  char what[160];
  snprintf(what, sizeof what, "service not started, %s", strerror(error));
  after_end(stack, false, what);
}

// The child's process-wide settings: run in app/, read nothing, write into
// the log, lead its own group (so stopping it reaches what it started), and
// die with the runtime, since the daemon signals only the runtime's group.
process* spawn(runenv_stack* stack, int input, int output) {
  process_options options{.argv = stack->manifest.service_command.items,
                          .working_directory = bucket_cstring(&stack->app_path),
                          .stdio = {input, output, output},
                          .job = true,
                          .close_others = true,
                          .death_signal = SIGKILL};
  return runenv_stack_spawn(stack, &options);
}

}  // namespace

void runenv_service_start(runenv_stack* stack) {
  runenv_service* service = &stack->service;
  // The back-off was the last run's grace: nothing of it outlives its successor's start.
  if (service->stray_group > 0) kill(-service->stray_group, SIGKILL);
  service->stray_group = 0;
  if (service->backoff_ms == 0) service->backoff_ms = RUNENV_BACKOFF_FIRST_MS;
  runenv_log_source* source = nullptr;
  int output = runenv_source_open(stack, &source);
  int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  process* child = output >= 0 && input >= 0 ? spawn(stack, input, output) : nullptr;
  int error = errno;
  if (output >= 0) close(output);
  if (input >= 0) close(input);
  if (child == nullptr) {
    if (source != nullptr) runenv_source_close(stack, source);
    return start_failed(stack, error);
  }
  runenv_source_label(source, "service", child->pid);
  service->pid = child->pid;
  process_destroy(child);
  service->state = RUNENV_SERVICE_STARTING;
  service->started_at = time(nullptr);
  service->started_ms = runtime_getclock();
  service->deadline_ms = service->started_ms + RUNENV_SERVICE_SETTLE_MS;
  runenv_say(stack, RUNENV_LOG_ONLY, "service started, pid %d", static_cast<int>(service->pid));
  runenv_state_write(stack);
}

bool runenv_service_collect(runenv_stack* stack, pid_t pid, int wait_status) {
  runenv_service* service = &stack->service;
  if (service->pid <= 0 || pid != service->pid) return false;
  runenv_source_drain(stack, pid);
  // What the leader left in its group gets the same signal as a stack's
  // group gets from the daemon when the stack's program ends.
  kill(-pid, SIGTERM);
  service->stray_group = pid;
  process ended{pid, true, wait_status};
  process_status status = process_wait(&ended);
  record_end(service, status.code, status.description);
  char what[160];
  snprintf(what, sizeof what, "service pid %d ended, %s (%d)", static_cast<int>(pid), status.description,
           status.code);
  after_end(stack, true, what);
  return true;
}

void runenv_service_tick(runenv_stack* stack) {
  runenv_service* service = &stack->service;
  if (service->deadline_ms == 0 || runtime_getclock() < service->deadline_ms) return;
  service->deadline_ms = 0;
  if (service->state == RUNENV_SERVICE_STARTING) {
    service->state = RUNENV_SERVICE_RUNNING;
    runenv_state_write(stack);
    return;
  }
  if (service->state != RUNENV_SERVICE_BACKOFF) return;
  service->restarts += 1;
  runenv_service_start(stack);
}

void runenv_service_halt(runenv_stack* stack, int signal_number) {
  runenv_service* service = &stack->service;
  service->halted = true;
  if (service->state == RUNENV_SERVICE_BACKOFF) {
    service->state = RUNENV_SERVICE_STOPPED;
    service->deadline_ms = 0;
    runenv_state_write(stack);
  }
  if (signal_number == 0) return;
  if (service->pid > 0) kill(-service->pid, signal_number);
  if (service->stray_group > 0) kill(-service->stray_group, signal_number);
}

// Supervision: collecting ended jobs, settling states, destroying stacks whose
// deployment never completed, and the two ways of ending a stack's job.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "base/dymarray.h"
#include "base/fs.h"
#include "base/runtime.h"
#include "stackman/internal.h"

namespace {

// A stack that ignores SIGTERM must not hold the daemon: its group gets
// SIGKILL when the leader has not ended this long after SIGTERM.
constexpr int64_t kStopGraceMilliseconds = 5000;
constexpr uint32_t kStopPollMilliseconds = 10;
constexpr uint64_t kDestroyListStep = 32;

// Blocks until the leader, which has been sent SIGKILL, is collected; a
// signal for the daemon itself may interrupt the wait.
void reap_killed(process* job) {
  while (process_wait(job).code == -1 && !job->reaped && errno == EINTR) {
  }
}

// Counts the end of the stack's job, which has been collected, and keeps how
// it ended.
void note_exit(stackman_stack* stack, process_status status) {
  stackman_figures& figures = stack->figures;
  ++figures.exits;
  figures.started = 0;
  figures.exited = true;
  figures.last_exit.code = status.code;
  snprintf(figures.last_exit.text, sizeof figures.last_exit.text, "%s", status.description);
  figures.last_exit.at = time(nullptr);
}

// Kills the job's group and reaps its leader, whatever the leader does with
// SIGTERM; the record is released and the stack left idle.
void end_job(stackman_stack* stack) {
  process* job = stack->job;
  process_kill_job(job);
  int64_t deadline = runtime_getclock() + kStopGraceMilliseconds;
  while (process_alive(job)) {
    if (runtime_getclock() >= deadline) {
      kill(-job->pid, SIGKILL);
      runtime_err("Error: stack '%s'[%s] did not stop in time, killed\n", stack->key, stack->name);
      reap_killed(job);
      break;
    }
    runtime_sleep(kStopPollMilliseconds);
  }
  note_exit(stack, process_wait(job));
  stackman_jobs_forget(stack);
  process_destroy(job);
  stack->job = nullptr;
  stack->state = STACKMAN_IDLE;
}

// The job's leader has been collected: decode its status, stop whatever it
// left running in its group and release the record.
process_status collect(stackman_stack* stack) {
  process_status status = process_wait(stack->job);
  note_exit(stack, status);
  process_kill_job(stack->job);
  stackman_jobs_forget(stack);
  process_destroy(stack->job);
  stack->job = nullptr;
  return status;
}

void supervise_running(stackman_stack* stack, dymarray* doomed) {
  if (process_alive(stack->job)) return;
  process_status status = collect(stack);
  runtime_err("Error: stack '%s'[%s] unexpected exit, %s (%d)\n", stack->key, stack->name, status.description,
              status.code);
  if (fs_exists(&stack->deployed_path)) {
    stack->state = STACKMAN_IDLE;
  } else {
    ++stackman_state.deployments.unfinished;
    *static_cast<stackman_stack**>(dymarray_alloc(doomed)) = stack;
  }
}

void supervise_stopping(stackman_stack* stack) {
  if (process_alive(stack->job)) return;
  process_status status = collect(stack);
  if (status.code != 0)
    runtime_err("Error: stack '%s'[%s] failed to exit properly, %s (%d)\n", stack->key, stack->name,
                status.description, status.code);
  stack->state = STACKMAN_IDLE;
}

}  // namespace

void stackman_loop() {
  dymarray doomed;
  dymarray_init(&doomed, sizeof(stackman_stack*), kDestroyListStep);
  for (stackman_stack* stack = stackman_state.stacks; stack != nullptr; stack = stack->next) {
    switch (stack->state) {
      case STACKMAN_RUNNING: supervise_running(stack, &doomed); break;
      case STACKMAN_STOPPING: supervise_stopping(stack); break;
      case STACKMAN_UNDEPLOYED: *static_cast<stackman_stack**>(dymarray_alloc(&doomed)) = stack; break;
      default: break;
    }
  }
  // Destruction frees records, so it waits until the walk is over.
  for (uint64_t i = 0; i < dymarray_size(&doomed); ++i)
    stackman_stack_destroy(*static_cast<stackman_stack**>(dymarray_at(&doomed, i)));
  dymarray_destroy(&doomed);
}

void stackman_stack_destroy(stackman_stack* stack) {
  if (stack->job != nullptr) end_job(stack);
  stackman_remove_hidden(&stack->store_path, &stackman_state.data_root, stack->key);
  stackman_remove_hidden(&stack->stack_path, &stackman_state.stacks_root, stack->key);
  stackman_stack_free(stack);
}

void stackman_stack_killjob(stackman_stack* stack) {
  if (stack->job != nullptr) end_job(stack);
}

void stackman_killall() {
  // One shared grace period for all stacks: SIGTERM to every group first,
  // so that ten stubborn stacks cost five seconds, not fifty.
  for (stackman_stack* stack = stackman_state.stacks; stack != nullptr; stack = stack->next)
    if (stack->job != nullptr) process_kill_job(stack->job);
  int64_t deadline = runtime_getclock() + kStopGraceMilliseconds;
  for (;;) {
    bool any = false;
    for (stackman_stack* stack = stackman_state.stacks; stack != nullptr; stack = stack->next)
      any = (stack->job != nullptr && process_alive(stack->job)) || any;
    if (!any || runtime_getclock() >= deadline) break;
    runtime_sleep(kStopPollMilliseconds);
  }
  for (stackman_stack* stack = stackman_state.stacks; stack != nullptr; stack = stack->next) {
    process* job = stack->job;
    if (job == nullptr) continue;
    bool stubborn = process_alive(job);
    // Members that outlived their leader go too: nothing of a stack may
    // outlive a forced stop.
    kill(-job->pid, SIGKILL);
    if (stubborn) {
      runtime_err("Error: stack '%s'[%s] did not stop in time, killed\n", stack->key, stack->name);
      reap_killed(job);
    }
    note_exit(stack, process_wait(job));
    stackman_jobs_forget(stack);
    process_destroy(job);
    stack->job = nullptr;
    stack->state = STACKMAN_IDLE;
  }
}

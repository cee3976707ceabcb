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

// The leader outlived its grace after SIGTERM: SIGKILL to the whole group,
// one line, and the wait for the leader.
void kill_stubborn(stackman_stack* stack) {
  kill(-stack->job->pid, SIGKILL);
  runtime_err("Error: stack '%s'[%s] did not stop in time, killed\n", stack->key, stack->name);
  reap_killed(stack->job);
}

// The job's leader has been collected: its end is counted, its record
// forgotten and released, and the stack is idle.
void release_job(stackman_stack* stack, process_status status) {
  note_exit(stack, status);
  stackman_jobs_forget(stack);
  process_destroy(stack->job);
  stack->job = nullptr;
  stack->state = STACKMAN_IDLE;
}

// Kills the job's group and reaps its leader, whatever the leader does with
// SIGTERM.
void end_job(stackman_stack* stack) {
  process* job = stack->job;
  process_kill_job(job);
  int64_t deadline = runtime_getclock() + kStopGraceMilliseconds;
  while (process_alive(job)) {
    if (runtime_getclock() >= deadline) {
      kill_stubborn(stack);
      break;
    }
    runtime_sleep(kStopPollMilliseconds);
  }
  release_job(stack, process_wait(job));
}

// The job's leader has ended by itself: decode its status, stop whatever it
// left running in its group and release the job.
process_status collect(stackman_stack* stack) {
  process_status status = process_wait(stack->job);
  process_kill_job(stack->job);
  release_job(stack, status);
  return status;
}

void supervise_running(stackman_stack* stack, dymarray* doomed) {
  if (process_alive(stack->job)) return;
  process_status status = collect(stack);
  runtime_err("Error: stack '%s'[%s] unexpected exit, %s (%d)\n", stack->key, stack->name, status.description,
              status.code);
  // A stack whose deployment never completed goes at the end of the pass.
  if (!fs_exists(&stack->deployed_path)) {
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
    // Members that outlived their leader go too: nothing of a stack may
    // outlive a forced stop.
    if (process_alive(job))
      kill_stubborn(stack);
    else
      kill(-job->pid, SIGKILL);
    release_job(stack, process_wait(job));
  }
}

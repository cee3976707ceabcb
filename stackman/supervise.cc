// Supervision: collecting ended jobs, settling states, destroying stacks whose
// deployment never completed, and the two ways of ending a stack's job.
#include <cerrno>
#include <csignal>
#include <cstdlib>

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
      // A signal for the daemon itself may interrupt the wait; the leader
      // dies of SIGKILL at once, so wait again until it is collected.
      while (process_wait(job).code == -1 && !job->reaped && errno == EINTR) {
      }
      break;
    }
    runtime_sleep(kStopPollMilliseconds);
  }
  process_destroy(job);
  stack->job = nullptr;
  stack->state = STACKMAN_IDLE;
}

// The job's leader has been collected: decode its status, stop whatever it
// left running in its group and release the record.
process_status collect(stackman_stack* stack) {
  process_status status = process_wait(stack->job);
  process_kill_job(stack->job);
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
  fs_remove_recursive(&stack->store_path);
  fs_remove_recursive(&stack->stack_path);
  stackman_stack_free(stack);
}

void stackman_stack_killjob(stackman_stack* stack) {
  if (stack->job != nullptr) end_job(stack);
}

// Handlers: one run of the stack's handler per connection handed to the
// stack, inetd-style, and their collection when they end.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "base/process.h"
#include "base/runtime.h"
#include "protocol/management.h"
#include "runenv/runenv.h"

namespace {

// A bundle without [handler] still owes the client an answer it can read.
void answer_without_handler(runenv_stack* stack, socket_record* connection) {
  std::string line = std::string("stack ") + stack->name + " has no handler\n";
  if (send(connection->descriptor, line.data(), line.size(), MSG_NOSIGNAL) < 0)
    runenv_say(stack, RUNENV_LOG_ONLY, "no-handler answer not sent, %s", strerror(errno));
  socket_close(connection);
  runenv_say(stack, RUNENV_LOG_ONLY, "connection closed: the stack has no handler");
}

// The connection on standard input and output, standard error into the log.
process* spawn(runenv_stack* stack, int connection, int errors) {
  const char* image[] = {bucket_cstring(&stack->image_path), nullptr};
  process_options options{.argv = stack->bundle ? stack->manifest.handler_command.items : image,
                          .working_directory = bucket_cstring(stack->bundle ? &stack->app_path : &stack->stack_path),
                          .stdio = {connection, connection, errors},
                          .close_others = true};
  return runenv_stack_spawn(stack, &options);
}

// The client sees the end of its session once the runtime's copy of the
// connection goes too. A handler the stack stopped did not end the session
// by its own choice, and the client is told so in the session's last line;
// a client that reads no more cannot hold the runtime up.
void end_session(runenv_stack* stack, int connection) {
  if (stack->stopping)
    (void)!send(connection, MANAGEMENT_SESSION_STOPPED.data(), MANAGEMENT_SESSION_STOPPED.size(),
                MSG_NOSIGNAL | MSG_DONTWAIT);
  close(connection);
}

}  // namespace

int runenv_handler_start(runenv_stack* stack, socket_record* connection) {
  if (stack->bundle && stack->manifest.handler_command.count == 0) {
    answer_without_handler(stack, connection);
    return -1;
  }
  runenv_log_source* source = nullptr;
  int errors = runenv_source_open(stack, &source);
  process* child = errors >= 0 ? spawn(stack, connection->descriptor, errors) : nullptr;
  int error = errno;
  if (errors >= 0) close(errors);
  if (child == nullptr) {
    socket_close(connection);
    if (source != nullptr) runenv_source_close(stack, source);
    runenv_say(stack, RUNENV_ECHO_ERROR, "handler not started, %s", strerror(error));
    return -1;
  }
  runenv_source_label(source, "handler", child->pid);
  // The runtime's copy stays close-on-exec, so no later child inherits it.
  *static_cast<runenv_handler*>(dymarray_alloc(&stack->handlers)) = {child->pid, connection->descriptor};
  connection->descriptor = -1;
  runenv_say(stack, RUNENV_LOG_ONLY, "handler %d started", static_cast<int>(child->pid));
  process_destroy(child);
  runenv_state_write(stack);
  return 0;
}

bool runenv_handler_collect(runenv_stack* stack, pid_t pid, int wait_status) {
  uint64_t count = dymarray_size(&stack->handlers);
  uint64_t index = 0;
  while (index < count && static_cast<runenv_handler*>(dymarray_at(&stack->handlers, index))->pid != pid) ++index;
  if (index == count) return false;
  dymarray_swap(&stack->handlers, index, count - 1);
  end_session(stack, static_cast<runenv_handler*>(dymarray_last(&stack->handlers))->connection);
  dymarray_pop_back(&stack->handlers);
  runenv_source_drain(stack, pid);
  // The process family decodes an end it did not collect itself just the
  // same, given a record that says it was collected.
  process ended{pid, true, wait_status};
  process_status status = process_wait(&ended);
  runenv_say(stack, RUNENV_LOG_ONLY, "handler %d ended, %s (%d)", static_cast<int>(pid), status.description,
             status.code);
  runenv_state_write(stack);
  return true;
}

void runenv_handler_signal(runenv_stack* stack, int signal_number) {
  uint64_t count = dymarray_size(&stack->handlers);
  for (uint64_t i = 0; i < count; ++i)
    kill(static_cast<runenv_handler*>(dymarray_at(&stack->handlers, i))->pid, signal_number);
}

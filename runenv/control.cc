// The control loop: datagrams from the daemon on os-worker, the stop
// signals, and collecting handlers as they end.
#include <csignal>
#include <cstring>

#include "base/istream.h"
#include "base/runtime.h"
#include "base/sockpoll.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"
#include "runenv/runenv.h"

volatile sig_atomic_t runenv_stop_signal = 0;

namespace {

using control_t = image___os_internal_protocol___root_t;

enum : uint32_t { TYPE_SET_NAME = 0, TYPE_SHUTDOWN = 1, TYPE_SOCKPASS = 2, TYPE_TEXT = 3 };

// Ends of handlers are collected on the loop's next turn; the poll timeout
// bounds the wait when the signal lands just before the poll.
constexpr int32_t loop_timeout_ms = 250;
// How long handlers get to end after SIGTERM when the daemon asks the stack
// to shut down; the daemon's own forced stop waits longer than this.
constexpr uint32_t shutdown_grace_ms = 3000;

volatile sig_atomic_t child_ended = 0;

void on_stop(int number) { runenv_stop_signal = number; }
void on_child(int) { child_ended = 1; }

void install(int number, void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;  // no SA_RESTART: the poll must wake up
  sigemptyset(&action.sa_mask);
  sigaction(number, &action, nullptr);
}

// Log lines carry the text on one line: control bytes would split it or
// garble the terminal, so they are shown as '?'.
void log_text(runenv_stack* stack, bool error, const message_text* line) {
  bucket shown{};
  for (uint64_t i = 0; i < line->length; ++i) {
    auto byte = static_cast<unsigned char>(line->text[i]);
    bucket_push(&shown, byte < 0x20 || byte == 0x7f ? '?' : byte);
  }
  if (error)
    runtime_err("Error: stack '%s'[%s] %s\n", bucket_cstring(&stack->key), stack->name, bucket_cstring(&shown));
  else
    runtime_log("Stack '%s'[%s]: %s\n", bucket_cstring(&stack->key), stack->name, bucket_cstring(&shown));
  bucket_release(&shown);
}

// The client learns that the application takes over before the
// application's first byte can reach it.
void take_connection(runenv_stack* stack, socket_record* connection) {
  if (runenv_reply(connection, RUNENV_REPLY_UPGRADE, nullptr) != 0) {
    runtime_err("Error: stack '%s'[%s] passed connection dropped, %s\n", bucket_cstring(&stack->key), stack->name,
                socket_strerror(connection));
    socket_close(connection);
    return;
  }
  runenv_handler_start(stack, connection);
}

// Acts on one parsed message; 1 for shutdown. A passed connection that is
// handed on is marked closed in `passed`.
int dispatch(runenv_stack* stack, control_t* root, socket_record* passed) {
  const char* key = bucket_cstring(&stack->key);
  switch (root->type.tag) {
    case TYPE_SET_NAME: {
      auto* set_name = static_cast<image___os_internal_protocol___root___type___set_name_t*>(root->type.payload);
      const char* name = set_name->name.text != nullptr ? set_name->name.text : "";
      runtime_log("Stack '%s'[%s]: renamed to [%s]\n", key, stack->name, name);
      runenv_stack_set_name(stack, name, set_name->name.length);
      return 0;
    }
    case TYPE_SHUTDOWN:
      return 1;
    case TYPE_SOCKPASS:
      if (passed->descriptor < 0) {
        runtime_err("Error: stack '%s'[%s] sockpass without a connection ignored\n", key, stack->name);
        return 0;
      }
      take_connection(stack, passed);
      passed->descriptor = -1;
      return 0;
    case TYPE_TEXT: {
      auto* text = static_cast<image___os_internal_protocol___root___type___text_t*>(root->type.payload);
      log_text(stack, text->channel.tag == 0, &text->line);
      return 0;
    }
    default:
      runtime_err("Error: stack '%s'[%s] control message of unknown type %u ignored\n", key, stack->name,
                  static_cast<unsigned>(root->type.tag));
      return 0;
  }
}

int handle(runenv_stack* stack, const socket_message* message, socket_record* passed) {
  dympage* arena = image___os_internal_protocol___create_allocator_f();
  control_t* root = image___os_internal_protocol___root_t___allocate_f(arena);
  istream* input = istream_create_memory(message->data, message->size);
  int result = 0;
  try {
    if (image___os_internal_protocol___parse_bin_f(arena, root, input) != 0) message_recover(root);
    // A tag this runtime does not know ends the reading without a choice.
    if (root->type.set == 0) message_recover(root, "unknown message type");
    result = dispatch(stack, root, passed);
  } catch (const message_recovery& recovery) {
    const char* reason = recovery.root->failure_reason;
    runtime_err("Error: stack '%s'[%s] malformed control message of %llu bytes dropped, %s\n",
                bucket_cstring(&stack->key), stack->name, static_cast<unsigned long long>(message->size),
                reason != nullptr ? reason : "no reason");
  }
  istream_destroy(input);
  image___os_internal_protocol___destroy_allocator_f(arena);
  return result;
}

// Shutdown asked by the daemon: handlers get their grace, then the runtime
// ends with status 0.
int shut_down(runenv_stack* stack) {
  runtime_log("Stack '%s'[%s]: shutting down\n", bucket_cstring(&stack->key), stack->name);
  runenv_stack_close(stack);
  runenv_handler_stop_all(stack, shutdown_grace_ms);
  runtime_log("Stack '%s'[%s]: stopped\n", bucket_cstring(&stack->key), stack->name);
  return 0;
}

// A stop signal: the daemon is forcing the stop (and signals the whole
// group itself), so the runtime leaves at once, passing SIGTERM on in case
// the signal was meant for it alone.
int stop_now(runenv_stack* stack) {
  int number = runenv_stop_signal;
  runtime_log("Stack '%s'[%s]: %s, stopping at once\n", bucket_cstring(&stack->key), stack->name,
              strsignal(number));
  runenv_stack_close(stack);
  runenv_handler_signal(stack, SIGTERM);
  runenv_handler_reap(stack);
  return 0;
}

}  // namespace

void runenv_install_signals() {
  install(SIGTERM, on_stop, 0);
  install(SIGINT, on_stop, 0);
  install(SIGCHLD, on_child, SA_NOCLDSTOP);
}

int runenv_control_receive(runenv_stack* stack) {
  socket_message message{};
  int received = -1;
  socket_record passed{};
  if (socket_msg_recv_dup(&stack->worker, nullptr, &message, &received, &passed) != 0) {
    runtime_err("Error: stack '%s'[%s] control receive failed, %s\n", bucket_cstring(&stack->key), stack->name,
                socket_strerror(&stack->worker));
    return 0;
  }
  if (received != 0) passed.descriptor = -1;
  int result = handle(stack, &message, &passed);
  if (passed.descriptor >= 0) {
    runtime_err("Error: stack '%s'[%s] descriptor passed without sockpass closed\n", bucket_cstring(&stack->key),
                stack->name);
    socket_close(&passed);
  }
  return result;
}

int runenv_serve(runenv_stack* stack) {
  sockpoll* set = sockpoll_create();
  sockpoll_attach(set, &stack->worker);
  runtime_log("Stack '%s'[%s]: serving on %s\n", bucket_cstring(&stack->key), stack->name,
              bucket_cstring(&stack->worker_path));
  int shutdown = 0;
  while (shutdown == 0 && runenv_stop_signal == 0) {
    if (child_ended != 0) {
      child_ended = 0;
      runenv_handler_reap(stack);
    }
    if (sockpoll_wait(set, loop_timeout_ms) > 0 && runenv_stop_signal == 0 &&
        sockpoll_can_read(set, &stack->worker) == 1)
      shutdown = runenv_control_receive(stack);
  }
  sockpoll_detach(set, &stack->worker);
  sockpoll_destroy(set);
  return runenv_stop_signal != 0 ? stop_now(stack) : shut_down(stack);
}

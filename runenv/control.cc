// The control channel: datagrams from the daemon on os-worker, each parsed
// in an arena of its own and acted on.
#include <cstring>

#include "base/istream.h"
#include "base/runtime.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"
#include "runenv/runenv.h"

namespace {

using control_t = image___os_internal_protocol___root_t;

// The control message's kinds by the names the generated module gives their tags.
#define CONTROL_KIND(kind) image___os_internal_protocol___root_t___type___tag___##kind

// Log lines carry the text on one line: control bytes would split it or
// garble the terminal, so they are shown as '?'.
void log_text(runenv_stack* stack, bool error, const message_text* line) {
  bucket shown{};
  for (uint64_t i = 0; i < line->length; ++i) {
    auto byte = static_cast<unsigned char>(line->text[i]);
    bucket_push(&shown, byte < 0x20 || byte == 0x7f ? '?' : byte);
  }
  runenv_say(stack, error ? RUNENV_ECHO_ERROR : RUNENV_ECHO_INFO, "%s", bucket_cstring(&shown));
  bucket_release(&shown);
}

// The client learns that the application takes over before the
// application's first byte can reach it.
void take_connection(runenv_stack* stack, socket_record* connection) {
  if (runenv_reply(connection, RUNENV_REPLY_UPGRADE, nullptr) != 0) {
    runenv_say(stack, RUNENV_ECHO_ERROR, "passed connection dropped, %s", socket_strerror(connection));
    socket_close(connection);
    return;
  }
  runenv_handler_start(stack, connection);
}

// Acts on one parsed message; 1 for shutdown. A passed connection that is
// handed on is marked closed in `passed`.
int dispatch(runenv_stack* stack, control_t* root, socket_record* passed) {
  switch (root->type.tag) {
    case CONTROL_KIND(set_name): {
      auto* set_name = static_cast<image___os_internal_protocol___root___type___set_name_t*>(root->type.payload);
      const char* name = set_name->name.text != nullptr ? set_name->name.text : "";
      runenv_say(stack, RUNENV_ECHO_INFO, "renamed to [%s]", name);
      runenv_stack_set_name(stack, name, set_name->name.length);
      return 0;
    }
    case CONTROL_KIND(shutdown):
      return 1;
    case CONTROL_KIND(sockpass):
      if (passed->descriptor < 0) {
        runenv_say(stack, RUNENV_ECHO_ERROR, "sockpass without a connection ignored");
        return 0;
      }
      take_connection(stack, passed);
      passed->descriptor = -1;
      return 0;
    case CONTROL_KIND(text): {
      auto* text = static_cast<image___os_internal_protocol___root___type___text_t*>(root->type.payload);
      log_text(stack, text->channel.tag == image___os_internal_protocol___root___type___text_t___channel___tag___error, &text->line);
      return 0;
    }
    default:
      runenv_say(stack, RUNENV_ECHO_ERROR, "control message of unknown type %u ignored",
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
    runenv_say(stack, RUNENV_ECHO_ERROR, "malformed control message of %llu bytes dropped, %s",
               static_cast<unsigned long long>(message->size), reason != nullptr ? reason : "no reason");
  }
  istream_destroy(input);
  image___os_internal_protocol___destroy_allocator_f(arena);
  return result;
}

}  // namespace

int runenv_control_receive(runenv_stack* stack) {
  socket_message message{};
  int received = -1;
  socket_record passed{};
  if (socket_msg_recv_dup(&stack->worker, nullptr, &message, &received, &passed) != 0) {
    runenv_say(stack, RUNENV_ECHO_ERROR, "control receive failed, %s", socket_strerror(&stack->worker));
    return 0;
  }
  if (received != 0) passed.descriptor = -1;
  int result = handle(stack, &message, &passed);
  if (passed.descriptor >= 0) {
    runenv_say(stack, RUNENV_ECHO_ERROR, "descriptor passed without sockpass closed");
    socket_close(&passed);
  }
  return result;
}

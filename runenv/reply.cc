// Replies to clients on connections the runtime holds, in the management
// reply encoding, one frame each.
#include <cerrno>
#include <cstdlib>

#include "base/ostream.h"
#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "runenv/runenv.h"

namespace {

using reply_t = image___appsrv_protocol_reply___root_t;

void choose(dympage* arena, reply_t* root, runenv_reply_kind kind, const char* reason) {
  switch (kind) {
    case RUNENV_REPLY_FAILURE: {
      auto* failure = image___appsrv_protocol_reply___root_t___status___iwrite_setto___failure(arena, root);
      if (failure == nullptr ||
          image___appsrv_protocol_reply___root___status___failure_t___reason___iwrite_set(arena, failure, reason) != 0)
        message_recover(root);
      return;
    }
    case RUNENV_REPLY_EMPTY: {
      auto* success = image___appsrv_protocol_reply___root_t___status___iwrite_setto___success(arena, root);
      if (success == nullptr ||
          image___appsrv_protocol_reply___root___status___success_t___type___iwrite_setto___empty(arena, success) ==
              nullptr)
        message_recover(root);
      return;
    }
    case RUNENV_REPLY_UPGRADE:
      if (image___appsrv_protocol_reply___root_t___status___iwrite_setto___upgrade(arena, root) == nullptr)
        message_recover(root);
      return;
  }
  message_recover(root, "unknown reply kind");
}

// The encoded reply in a heap buffer the caller frees; size 0 when it could
// not be built.
void encode(runenv_reply_kind kind, const char* reason, char** buffer, uint64_t* size) {
  dympage* arena = image___appsrv_protocol_reply___create_allocator_f();
  reply_t* root = image___appsrv_protocol_reply___root_t___allocate_f(arena);
  ostream* out = ostream_create_memory(buffer, size);
  try {
    choose(arena, root, kind, reason);
    image___appsrv_protocol_reply___finalize_f(root);
    if (image___appsrv_protocol_reply___serialize_bin_f(root, out) != 0) message_recover(root);
  } catch (const message_recovery&) {
    ostream_destroy(out);
    out = nullptr;
    *size = 0;
  }
  if (out != nullptr) ostream_destroy(out);
  image___appsrv_protocol_reply___destroy_allocator_f(arena);
}

}  // namespace

int runenv_reply(socket_record* connection, runenv_reply_kind kind, const char* reason) {
  char* buffer = nullptr;
  uint64_t size = 0;
  encode(kind, reason, &buffer, &size);
  int result = -1;
  if (size != 0) {
    socket_message message{buffer, size};
    result = socket_msg_send(connection, nullptr, &message);
  } else {
    connection->error = "reply could not be encoded";
  }
  free(buffer);
  return result;
}

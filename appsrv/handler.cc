#include "appsrv/handler.h"

#include <cstdlib>
#include <sys/socket.h>
#include <sys/time.h>

#include "appsrv/status.h"
#include "appsrv/upload.h"
#include "base/bigendian.h"
#include "base/runtime.h"
#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "protocol/management.h"
#include "stackman/stackman.h"

namespace {

using request_t = image___appsrv_protocol_request___root_t;
using reply_t = image___appsrv_protocol_reply___root_t;
using success_t = image___appsrv_protocol_reply___root___status___success_t;

// The request kinds by the names the generated module gives their tags.
#define REQUEST_KIND(kind) image___appsrv_protocol_request___root_t___type___tag___##kind

// The request frame as it waits in the connection, looked at but not taken.
uint8_t frame_view[4 + socket_message_max];

// Waits until the whole request frame is queued on the connection, so that a
// client sending it slowly cannot hold the daemon past the deadline; the
// framed receive then finds every byte there. False when the deadline passes
// first, or the stream fails or ends before the frame is whole. A length the
// framing refuses is left for the framed receive to refuse.
bool whole_frame_by(socket_record* connection, int64_t deadline) {
  uint64_t need = 4;
  for (;;) {
    int64_t left = deadline - runtime_getclock();
    if (left <= 0) return false;
    set_receive_timeout(connection, left);
    // On TCP a peek waits for all it asks for, within the time-out.
    ssize_t got = recv(connection->descriptor, frame_view, need, MSG_PEEK | MSG_WAITALL);
    if (got < 0 || static_cast<uint64_t>(got) < need) return false;
    if (need > 4) return true;
    uint32_t length = bigendian_load32(frame_view);
    if (length == 0 || length > socket_message_max) return true;
    need += length;
  }
}

// Serializes a built reply into one frame on the connection; nothing is sent
// when serializing fails. The result of the send is not looked at: a client
// that has gone cannot be told anything.
void send_reply(socket_record* connection, reply_t* reply) {
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  image___appsrv_protocol_reply___finalize_f(reply);
  int serialized = image___appsrv_protocol_reply___serialize_bin_f(reply, out);
  ostream_destroy(out);
  if (serialized == 0) {
    socket_message message{buffer, size};
    socket_msg_send(connection, nullptr, &message);
  }
  free(buffer);
}

template <typename Build>
void reply_success(socket_record* connection, dympage* arena, Build build) {
  reply_t* reply = image___appsrv_protocol_reply___root_t___allocate_f(arena);
  try {
    success_t* success = image___appsrv_protocol_reply___root_t___status___iwrite_setto___success(arena, reply);
    if (success == nullptr) message_recover(reply);
    build(success);
    send_reply(connection, reply);
  } catch (const message_recovery&) {
  }
}

void reply_empty(socket_record* connection, dympage* arena) {
  reply_success(connection, arena, [&](success_t* success) {
    image___appsrv_protocol_reply___root___status___success_t___type___iwrite_setto___empty(arena, success);
  });
}

// Names go in newest first; the collection keeps them in byte order.
void reply_list(socket_record* connection, dympage* arena) {
  reply_success(connection, arena, [&](success_t* success) {
    auto* data = image___appsrv_protocol_reply___root___status___success_t___type___iwrite_setto___data(arena, success);
    stackman_iter iterator{};
    for (stackman_stack* s = stackman_iter_begin(&iterator); s != nullptr; s = stackman_iter_move(&iterator))
      image___appsrv_protocol_reply___root___status___success___type___data_t___stack_names___iwrite_create_entry(
          arena, data, iterator.name);
  });
}

// Receives and parses the one request of the connection; any failure goes
// back to the recovery point with its reason in the root.
void read_request(socket_record* connection, dympage* arena, request_t* request, int64_t deadline) {
  if (!whole_frame_by(connection, deadline)) message_recover(request, "request frame not in time");
  socket_message message{};
  if (socket_msg_recv(connection, nullptr, &message) != 0) message_recover(request, socket_strerror(connection));
  if (message.size == 0) message_recover(request, "end-of-stream");
  istream* in = istream_create_memory(message.data, message.size);
  int parsed = image___appsrv_protocol_request___parse_bin_f(arena, request, in);
  istream_destroy(in);
  if (parsed != 0) message_recover(request);
  image___appsrv_protocol_request___finalize_f(request);
}

void handle_delete(socket_record* connection, dympage* reply_arena, const char* name) {
  if (stackman_validate_name(name) != 0) return reply_failure(connection, reply_arena, MANAGEMENT_INVALID_NAME);
  stackman_stack* stack = stackman_get(name);
  if (stack == nullptr) return reply_failure(connection, reply_arena, MANAGEMENT_UNKNOWN_NAME);
  stackman_stack_destroy(stack);
  reply_empty(connection, reply_arena);
}

void hand_over(socket_record* connection, dympage* reply_arena, stackman_stack* stack) {
  set_receive_timeout(connection, 0);
  if (stackman_upgrade_connection(stack, connection) != 0)
    reply_failure(connection, reply_arena, stackman_strerror());
}

void handle_rename(socket_record* connection, dympage* reply_arena, const char* old_name, const char* new_name) {
  if (stackman_validate_name(old_name) != 0) return reply_failure(connection, reply_arena, MANAGEMENT_INVALID_OLD_NAME);
  if (stackman_validate_name(new_name) != 0) return reply_failure(connection, reply_arena, MANAGEMENT_INVALID_NEW_NAME);
  stackman_stack* stack = stackman_get(old_name);
  if (stack == nullptr) return reply_failure(connection, reply_arena, MANAGEMENT_UNKNOWN_NAME);
  if (stackman_get(new_name) != nullptr) return reply_failure(connection, reply_arena, MANAGEMENT_DUPLICATE_NAME);
  if (stackman_stack_rename(stack, new_name) != stack)
    return reply_failure(connection, reply_arena, stackman_strerror());
  hand_over(connection, reply_arena, stack);
}

void handle_select(socket_record* connection, dympage* reply_arena, const char* name) {
  if (stackman_validate_name(name) != 0) return reply_failure(connection, reply_arena, MANAGEMENT_INVALID_NAME);
  stackman_stack* stack = stackman_get(name);
  if (stack == nullptr) return reply_failure(connection, reply_arena, MANAGEMENT_UNKNOWN_NAME);
  hand_over(connection, reply_arena, stack);
}

}  // namespace

appsrv_limits appsrv_receive_limits = {30000, 30000, 60000, uint64_t{1} << 20};

void set_receive_timeout(socket_record* connection, int64_t milliseconds) {
  timeval timeout{static_cast<time_t>(milliseconds / 1000), static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
  setsockopt(connection->descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

void reply_failure(socket_record* connection, dympage* reply_arena, const char* reason) {
  reply_t* reply = image___appsrv_protocol_reply___root_t___allocate_f(reply_arena);
  try {
    auto* failure = image___appsrv_protocol_reply___root_t___status___iwrite_setto___failure(reply_arena, reply);
    if (failure == nullptr) message_recover(reply);
    image___appsrv_protocol_reply___root___status___failure_t___reason___iwrite_set(reply_arena, failure,
                                                                                    reason != nullptr ? reason : "");
    send_reply(connection, reply);
  } catch (const message_recovery&) {
  }
}

void handle_request(socket_record* connection, dympage* request_arena, dympage* reply_arena) {
  int64_t deadline = runtime_getclock() + appsrv_receive_limits.request_ms;
  request_t* request = image___appsrv_protocol_request___root_t___allocate_f(request_arena);
  try {
    read_request(connection, request_arena, request, deadline);
  } catch (const message_recovery&) {
    return;  // no reply and no log line: the connection is simply closed
  }
  set_receive_timeout(connection, appsrv_receive_limits.silence_ms);
  // A tag beyond the last request leaves the variant unset: ignored.
  if (!request->type.set || request->type.tag > REQUEST_KIND(upload)) return;
  void* payload = request->type.payload;
  switch (request->type.tag) {
    case REQUEST_KIND(delete):
      ++appsrv_counted.deletes;
      handle_delete(connection, reply_arena,
                    text_of(static_cast<image___appsrv_protocol_request___root___type___delete_t*>(payload)->stack_name));
      break;
    case REQUEST_KIND(list): reply_list(connection, reply_arena); break;
    case REQUEST_KIND(rename): {
      ++appsrv_counted.renames;
      auto* rename = static_cast<image___appsrv_protocol_request___root___type___rename_t*>(payload);
      handle_rename(connection, reply_arena, text_of(rename->old_name), text_of(rename->new_name));
      break;
    }
    case REQUEST_KIND(select):
      ++appsrv_counted.selects;
      handle_select(connection, reply_arena,
                    text_of(static_cast<image___appsrv_protocol_request___root___type___select_t*>(payload)->stack_name));
      break;
    case REQUEST_KIND(upload):
      handle_upload(connection, reply_arena, static_cast<upload_request*>(payload));
      break;
  }
}

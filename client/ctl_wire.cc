#include "client/ctl_wire.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "client/ctl_ssh.h"
#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"

namespace {

using request_root = image___appsrv_protocol_request___root_t;
using reply_root = image___appsrv_protocol_reply___root_t;
using reply_failure = image___appsrv_protocol_reply___root___status___failure_t;
using reply_success = image___appsrv_protocol_reply___root___status___success_t;
using reply_data = image___appsrv_protocol_reply___root___status___success___type___data_t;

int fail(ctl_fault* fault, ctl_status status, std::string text) {
  fault->status = status;
  fault->text = std::move(text);
  return -1;
}

// The connection ended under us: when ssh carried it, ssh's own failure is
// the better reason.
int fail_closed(ctl_fault* fault, std::string text) {
  fail(fault, CTL_UNREACHABLE, std::move(text));
  ctl_ssh_explain(fault);
  return -1;
}

// Builds the tree for one request; refusals of the setters cannot happen on a
// fresh root, but the recovery point catches them all the same.
void build_request(dympage* arena, request_root* root, ctl_command command, const char* first, const char* second,
                   int64_t image_size) {
  switch (command) {
    case CTL_LIST:
      if (image___appsrv_protocol_request___root_t___type___iwrite_setto___list(arena, root) == nullptr)
        message_recover(root);
      return;
    case CTL_DELETE: {
      auto* payload = image___appsrv_protocol_request___root_t___type___iwrite_setto___delete(arena, root);
      if (payload == nullptr ||
          image___appsrv_protocol_request___root___type___delete_t___stack_name___iwrite_set(arena, payload, first) != 0)
        message_recover(root);
      return;
    }
    case CTL_SELECT: {
      auto* payload = image___appsrv_protocol_request___root_t___type___iwrite_setto___select(arena, root);
      if (payload == nullptr ||
          image___appsrv_protocol_request___root___type___select_t___stack_name___iwrite_set(arena, payload, first) != 0)
        message_recover(root);
      return;
    }
    case CTL_RENAME: {
      auto* payload = image___appsrv_protocol_request___root_t___type___iwrite_setto___rename(arena, root);
      if (payload == nullptr ||
          image___appsrv_protocol_request___root___type___rename_t___old_name___iwrite_set(arena, payload, first) != 0 ||
          image___appsrv_protocol_request___root___type___rename_t___new_name___iwrite_set(arena, payload, second) != 0)
        message_recover(root);
      return;
    }
    case CTL_UPLOAD: {
      auto* payload = image___appsrv_protocol_request___root_t___type___iwrite_setto___upload(arena, root);
      if (payload == nullptr ||
          image___appsrv_protocol_request___root___type___upload_t___image_size___iwrite_set(arena, payload, image_size) != 0 ||
          image___appsrv_protocol_request___root___type___upload_t___stack_name___iwrite_set(arena, payload, first) != 0)
        message_recover(root);
      return;
    }
    case CTL_STATUS:
    case CTL_LOGS:
    case CTL_METRICS:
    case CTL_NONE:
      break;
  }
  message_recover(root, "no request");
}

void read_reply(const reply_root* root, ctl_reply* reply) {
  *reply = ctl_reply{};
  if (root->status.tag == image___appsrv_protocol_reply___root_t___status___tag___failure) {
    auto* failure = static_cast<const reply_failure*>(root->status.payload);
    reply->kind = CTL_REPLY_FAILURE;
    reply->reason.assign(failure->reason.text, failure->reason.length);
    return;
  }
  if (root->status.tag == image___appsrv_protocol_reply___root_t___status___tag___upgrade) {
    reply->kind = CTL_REPLY_UPGRADE;
    return;
  }
  auto* success = static_cast<const reply_success*>(root->status.payload);
  if (success->type.tag == image___appsrv_protocol_reply___root___status___success_t___type___tag___empty) {
    reply->kind = CTL_REPLY_EMPTY;
    return;
  }
  reply->kind = CTL_REPLY_NAMES;
  auto* data = static_cast<const reply_data*>(success->type.payload);
  message_cursor cursor;
  for (const message_entry* entry =
           image___appsrv_protocol_reply___root___status___success___type___data___stack_names_t___cit_init(
               data->stack_names.tree, &cursor);
       entry != nullptr;
       entry = image___appsrv_protocol_reply___root___status___success___type___data___stack_names_t___cit_next(
           &cursor))
    reply->names.emplace_back(entry->text);
}

// A reply whose variants a reader can follow: every variant on the path set.
bool reply_complete(const reply_root* root) {
  if (!root->status.set) return false;
  if (root->status.tag != image___appsrv_protocol_reply___root_t___status___tag___success) return true;
  return static_cast<const reply_success*>(root->status.payload)->type.set != 0;
}

}  // namespace

int ctl_wait(int descriptor, short events, uint32_t timeout_ms) {
  int64_t deadline = runtime_getclock() + timeout_ms;
  for (;;) {
    int64_t left = deadline - runtime_getclock();
    if (left < 0) left = 0;
    pollfd entry{descriptor, events, 0};
    int ready = poll(&entry, 1, static_cast<int>(left));
    if (ready > 0) return entry.revents;
    if (ready == 0) return 0;
    if (errno != EINTR) return -1;
  }
}

int ctl_connect(const ctl_address* address, uint32_t timeout_ms, socket_record* sock, ctl_fault* fault) {
  if (address->ssh.destination[0] != '\0') return ctl_ssh_connect(address, timeout_ms, sock, fault);
  return ctl_tcp_connect(address, timeout_ms, sock, fault);
}

std::string ctl_encode_request(ctl_command command, const char* first, const char* second, int64_t image_size) {
  dympage* arena = image___appsrv_protocol_request___create_allocator_f();
  std::string bytes;
  try {
    request_root* root = image___appsrv_protocol_request___root_t___allocate_f(arena);
    build_request(arena, root, command, first, second, image_size);
    image___appsrv_protocol_request___finalize_f(root);
    char* buffer = nullptr;
    uint64_t size = 0;
    ostream* output = ostream_create_memory(&buffer, &size);
    int written = image___appsrv_protocol_request___serialize_bin_f(root, output);
    ostream_destroy(output);
    if (written == 0) bytes.assign(buffer, size);
    free(buffer);
  } catch (const message_recovery&) {
    bytes.clear();
  }
  image___appsrv_protocol_request___destroy_allocator_f(arena);
  return bytes;
}

int ctl_send_request(socket_record* sock, const std::string& payload, ctl_fault* fault) {
  if (payload.empty()) return fail(fault, CTL_FAILED, "cannot encode the request");
  if (payload.size() > socket_message_max) return fail(fault, CTL_FAILED, "request too large");
  socket_message message{payload.data(), payload.size()};
  if (socket_msg_send(sock, nullptr, &message) != 0)
    return fail_closed(fault, std::string("cannot send the request: ") + socket_strerror(sock));
  return 0;
}

int ctl_receive_reply(socket_record* sock, uint32_t timeout_ms, ctl_reply* reply, ctl_fault* fault) {
  int ready = ctl_wait(sock->descriptor, POLLIN, timeout_ms);
  if (ready == 0) return fail(fault, CTL_UNREACHABLE, "timed out after " + ctl_seconds(timeout_ms) + " waiting for a reply");
  if (ready < 0) return fail(fault, CTL_UNREACHABLE, std::string("cannot wait for a reply: ") + strerror(errno));
  // The whole frame follows its first byte closely; a daemon that stalls in
  // the middle of it still cannot hold the client beyond the time-out.
  timeval limit{static_cast<time_t>(timeout_ms / 1000), static_cast<suseconds_t>(timeout_ms % 1000 * 1000)};
  setsockopt(sock->descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  socket_message message{};
  int received = socket_msg_recv(sock, nullptr, &message);
  timeval none{};
  if (socket_is_alive(sock)) setsockopt(sock->descriptor, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
  if (received != 0) return fail_closed(fault, std::string("cannot read the reply: ") + socket_strerror(sock));
  if (message.size == 0) return fail_closed(fault, "connection closed without a reply");

  dympage* arena = image___appsrv_protocol_reply___create_allocator_f();
  std::string problem;
  try {
    reply_root* root = image___appsrv_protocol_reply___root_t___allocate_f(arena);
    istream* input = istream_create_memory(message.data, message.size);
    int parsed = image___appsrv_protocol_reply___parse_bin_f(arena, root, input);
    istream_destroy(input);
    if (parsed != 0) message_recover(root);
    image___appsrv_protocol_reply___finalize_f(root);
    if (!reply_complete(root)) message_recover(root, "unknown status");
    read_reply(root, reply);
  } catch (const message_recovery& recovery) {
    const char* reason = recovery.root->failure_reason;
    problem = std::string("malformed reply: ") + (reason != nullptr ? reason : "unreadable");
  }
  image___appsrv_protocol_reply___destroy_allocator_f(arena);
  if (!problem.empty()) return fail(fault, CTL_FAILED, problem);
  return 0;
}

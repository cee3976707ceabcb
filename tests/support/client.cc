#include "tests/support/client.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "protocol/message_set.h"
#include "tests/support/message_testing.h"

// The generated names share long prefixes.
#define REQ(name) image___appsrv_protocol_request___##name
#define REP(name) image___appsrv_protocol_reply___##name

namespace e2e {

namespace {

template <typename Build>
std::string encode(Build build) {
  TestArena arena;
  REQ(root_t)* root = REQ(root_t___allocate_f)(arena);
  build(arena, root);
  REQ(finalize_f)(root);
  int result = -1;
  std::string bytes = serialize_with(&REQ(serialize_bin_f), root, &result);
  return result == 0 ? bytes : std::string();
}

}  // namespace

// A request of this kind with its fields set: ENCODE(kind, SET(kind, field, value), ...).
#define ENCODE(kind, ...)                                                 \
  encode([&](dympage* arena, REQ(root_t)* root) {                         \
    [[maybe_unused]] auto* payload = REQ(root_t___type___iwrite_setto___##kind)(arena, root); \
    __VA_ARGS__;                                                          \
  })
#define SET(kind, field, value) REQ(root___type___##kind##_t___##field##___iwrite_set)(arena, payload, value)

std::string encode_list() { return ENCODE(list); }
std::string encode_delete(const std::string& name) { return ENCODE(delete, SET(delete, stack_name, name.c_str())); }
std::string encode_select(const std::string& name) { return ENCODE(select, SET(select, stack_name, name.c_str())); }
std::string encode_rename(const std::string& old_name, const std::string& new_name) {
  return ENCODE(rename, SET(rename, old_name, old_name.c_str()), SET(rename, new_name, new_name.c_str()));
}
std::string encode_upload(const std::string& name, int64_t image_size) {
  return ENCODE(upload, SET(upload, image_size, image_size), SET(upload, stack_name, name.c_str()));
}

std::string frame(const std::string& payload) {
  uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
  return std::string(reinterpret_cast<const char*>(&length), 4) + payload;
}

Connection::Connection(uint16_t port, int timeout_seconds) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval timeout{timeout_seconds, 0};
  if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) ::close(std::exchange(fd_, -1));
  else setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

Connection::~Connection() {
  if (fd_ >= 0) ::close(fd_);
}

bool Connection::send(const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool Connection::read_exactly(void* buffer, size_t size) {
  return size == 0 || recv(fd_, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

std::string Connection::reply() {
  uint32_t length = 0;
  if (!read_exactly(&length, 4)) return "";
  std::string payload(ntohl(length), '\0'), text;
  if (!read_exactly(payload.data(), payload.size())) return "";
  TestArena arena;
  auto* root = REP(root_t___allocate_f)(arena);
  bool parsed = parse_with(&REP(parse_bin_f), arena, root, payload) == 0 && root->status.set;
  if (parsed && root->status.tag == REP(root_t___status___tag___failure)) {
    auto* failure = static_cast<REP(root___status___failure_t)*>(root->status.payload);
    text = "failure: " + std::string(failure->reason.text, failure->reason.length);
  } else if (parsed && root->status.tag == REP(root_t___status___tag___success)) {
    auto* success = static_cast<REP(root___status___success_t)*>(root->status.payload);
    text = "success";
    if (success->type.set && success->type.tag == REP(root___status___success_t___type___tag___data)) {
      text = "names:";
      auto* data = static_cast<REP(root___status___success___type___data_t)*>(success->type.payload);
      for (const message_entry* e = message_set_first(data->stack_names.tree); e != nullptr; e = message_set_next(e))
        text += std::string("\n") + e->text;
    }
  } else if (parsed) {
    text = "upgrade";
  }
  return text;
}

std::string Connection::line() {
  std::string text;
  char c;
  while (recv(fd_, &c, 1, 0) == 1 && c != '\n') text += c;
  return text;
}

bool Connection::closed_without_reply() {
  char c;
  // Closing with unread bytes of ours makes the daemon's side reset.
  ssize_t got = recv(fd_, &c, 1, 0);
  return got == 0 || (got < 0 && errno == ECONNRESET);
}

std::string ask(uint16_t port, const std::string& request_payload, int timeout_seconds) {
  Connection connection(port, timeout_seconds);
  if (!connection.connected() || !connection.send(frame(request_payload))) return "";
  return connection.reply();
}

std::vector<std::string> list(uint16_t port) {
  std::string reply = ask(port, encode_list());
  if (reply.rfind("names:", 0) != 0) return {"<no reply>"};
  std::vector<std::string> names;
  for (size_t at = reply.find('\n'); at != std::string::npos; at = reply.find('\n', at + 1))
    names.push_back(reply.substr(at + 1, reply.find('\n', at + 1) - at - 1));
  return names;
}

std::string greeting(uint16_t port, const std::string& bytes, int timeout_seconds) {
  Connection connection(port, timeout_seconds);
  if (!connection.connected() || !connection.send(bytes)) return "";
  return connection.line();
}

std::string upload_bytes(const std::string& name, const std::string& image) {
  return frame(encode_upload(name, static_cast<int64_t>(image.size()))) + image;
}

std::string patterned_image(size_t size) {
  std::string image(size, '\0');
  for (size_t i = 0; i < size; ++i) image[i] = static_cast<char>(i * 7 + i / 4093);
  return image;
}

}  // namespace e2e

// A small management client for the end-to-end tests: requests made with the
// generated request module, replies read with the generated reply module,
// over plain loopback TCP.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace e2e {

std::string encode_list();
std::string encode_delete(const std::string& name);
std::string encode_rename(const std::string& old_name, const std::string& new_name);
std::string encode_select(const std::string& name);
std::string encode_upload(const std::string& name, int64_t image_size);
std::string frame(const std::string& payload);  // the big-endian length word and the payload
std::string upload_bytes(const std::string& name, const std::string& image);  // framed request, then image
// `size` bytes in which a run of bytes out of its place shows.
std::string patterned_image(size_t size);

// A connection to the daemon; every read gives up after `timeout_seconds`.
class Connection {
 public:
  explicit Connection(uint16_t port, int timeout_seconds = 10);
  ~Connection();
  bool connected() const { return fd_ >= 0; }
  bool send(const std::string& bytes);
  // Reads one frame as a reply: "failure: <reason>", "success", "names:" and
  // "\n<name>" for each name, "upgrade", or "" when no reply came.
  std::string reply();
  std::string line();  // raw bytes up to the next line feed ("" at the end)
  bool closed_without_reply();  // the daemon closed the connection without sending anything
  int fd() const { return fd_; }

 private:
  bool read_exactly(void* buffer, size_t size);
  int fd_ = -1;
};

// One request, its reply.
std::string ask(uint16_t port, const std::string& request_payload, int timeout_seconds = 10);
// The daemon's list, or a single "<no reply>" entry when no list came back.
std::vector<std::string> list(uint16_t port);
// Sends `bytes` and reads the line a stack answers with ("" when none came).
std::string greeting(uint16_t port, const std::string& bytes, int timeout_seconds = 10);

}  // namespace e2e

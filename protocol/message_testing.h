// Helpers shared by the message tests: building expected wire bytes, and
// running a module's serializer or parser over memory streams.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "protocol/bigendian.h"
#include "protocol/message.h"

// Expected bytes of one message, starting with the fingerprint.
class Wire {
 public:
  Wire() : bytes_(message_fingerprint, MESSAGE_FINGERPRINT_SIZE) {}
  Wire& u32(uint32_t value) {
    uint8_t raw[4];
    bigendian_store32(raw, value);
    bytes_.append(reinterpret_cast<const char*>(raw), sizeof raw);
    return *this;
  }
  Wire& i64(int64_t value) {
    uint8_t raw[8];
    bigendian_store64(raw, static_cast<uint64_t>(value));
    bytes_.append(reinterpret_cast<const char*>(raw), sizeof raw);
    return *this;
  }
  Wire& text(std::string_view text) {
    u32(static_cast<uint32_t>(text.size()));
    bytes_.append(text);
    return *this;
  }
  Wire& raw(std::string_view bytes) {
    bytes_.append(bytes);
    return *this;
  }
  const std::string& str() const { return bytes_; }

 private:
  std::string bytes_;
};

// The message arena of one test, destroyed however the test ends.
struct TestArena {
  dympage* arena = dympage_create();
  ~TestArena() { dympage_destroy(arena); }
  operator dympage*() const { return arena; }
};

// Serializes into a growable memory stream, or into a fixed one of
// `capacity` bytes when capacity is given. `result` gets the serializer's.
template <typename Root>
std::string serialize_with(int (*serialize)(Root*, ostream*), Root* root, int* result, int64_t capacity = -1) {
  uint64_t size = capacity < 0 ? 0 : static_cast<uint64_t>(capacity);
  char* buffer = capacity < 0 ? nullptr : static_cast<char*>(runtime_malloc(size + 1));
  ostream* output = ostream_create_memory2(&buffer, &size, capacity < 0 ? 1 : 0);
  *result = serialize(root, output);
  ostream_destroy(output);
  std::string bytes(buffer == nullptr ? "" : buffer, size);
  free(buffer);
  return bytes;
}

// Runs a parser over `bytes`; returns its result and leaves in `unread` the
// number of input bytes it did not consume.
template <typename Root>
int parse_with(int (*parse)(dympage*, Root*, istream*), dympage* arena, Root* root, const std::string& bytes,
               int64_t* unread = nullptr) {
  istream* input = istream_create_memory(bytes.data(), bytes.size());
  int result = parse(arena, root, input);
  if (unread != nullptr) *unread = istream_remaining(input);
  istream_destroy(input);
  return result;
}

inline std::string reason_of(const message_root* root) {
  return root->failure_reason == nullptr ? "(none)" : root->failure_reason;
}

// Helpers shared by the message tests: expected wire bytes built without the
// production encoder, and a module's serializer or parser run over memory.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "protocol/message.h"

// Expected bytes of one message. The fingerprint is spelled out here, not
// taken from the production constant, so that every expectation pins it.
class Wire {
 public:
  Wire& u32(uint32_t value) { return big_endian(value, 4); }
  Wire& i64(int64_t value) { return big_endian(static_cast<uint64_t>(value), 8); }
  Wire& text(std::string_view text) { return u32(static_cast<uint32_t>(text.size())).raw(text); }
  Wire& raw(std::string_view bytes) { bytes_.append(bytes); return *this; }
  const std::string& str() const { return bytes_; }

 private:
  Wire& big_endian(uint64_t value, int size) {
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) bytes_ += static_cast<char>(value >> shift);
    return *this;
  }
  std::string bytes_ = "d95b246cca0c3b04d105771d58246fa0e706a6d44ac97d6cb4bab99390a02582";
};

// The message arena of one test, destroyed however the test ends.
struct TestArena {
  dympage* arena = dympage_create();
  ~TestArena() { dympage_destroy(arena); }
  operator dympage*() const { return arena; }
};

// Serializes into a growable memory stream, or into a fixed one that takes
// at most `capacity` bytes. `result`, if given, gets the serializer's.
template <typename Root>
std::string serialize_with(int (*serialize)(Root*, ostream*), Root* root, int* result = nullptr,
                           int64_t capacity = -1) {
  uint64_t size = capacity < 0 ? 0 : static_cast<uint64_t>(capacity);
  char* buffer = capacity < 0 ? nullptr : static_cast<char*>(runtime_malloc(size + 1));
  ostream* output = ostream_create_memory2(&buffer, &size, capacity < 0 ? 1 : 0);
  int serialized = serialize(root, output);
  if (result != nullptr) *result = serialized;
  ostream_destroy(output);
  std::string bytes(buffer == nullptr ? "" : buffer, size);
  free(buffer);
  return bytes;
}

// Runs a parser over `bytes`.
template <typename Root>
int parse_with(int (*parse)(dympage*, Root*, istream*), dympage* arena, Root* root, const std::string& bytes) {
  istream* input = istream_create_memory(bytes.data(), bytes.size());
  int result = parse(arena, root, input);
  istream_destroy(input);
  return result;
}

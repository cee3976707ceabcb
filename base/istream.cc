#include "base/istream.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/runtime.h"

namespace {

uint64_t memory_read(istream* stream, void* destination, uint64_t count) {
  auto* memory = reinterpret_cast<istream_memory*>(stream);
  uint64_t available = memory->size - memory->position;
  uint64_t taken = count < available ? count : available;
  if (taken != 0) memcpy(destination, memory->bytes + memory->position, taken);
  memory->position += taken;
  return taken;
}

// Positions are compared in signed 128-bit arithmetic so that no offset can
// wrap around into the valid range.
int memory_seek(istream* stream, int origin, int64_t offset) {
  auto* memory = reinterpret_cast<istream_memory*>(stream);
  __int128 base;
  switch (origin) {
    case 0: base = 0; break;
    case 1: base = memory->position; break;
    case 2: base = memory->size; break;
    default: return -1;
  }
  __int128 target = base + offset;
  if (target < 0 || target > static_cast<__int128>(memory->size)) return -1;
  memory->position = static_cast<uint64_t>(target);
  return 0;
}

}  // namespace

istream* istream_create_memory(const void* bytes, uint64_t size) {
  auto* memory = static_cast<istream_memory*>(runtime_zalloc(sizeof(istream_memory)));
  memory->base.read_len = memory_read;
  memory->base.seek_pos = memory_seek;
  memory->bytes = static_cast<const uint8_t*>(bytes);
  memory->size = size;
  return &memory->base;
}

istream* istream_create_stdin() {
  auto* stdio = static_cast<istream_stdio*>(runtime_zalloc(sizeof(istream_stdio)));
  stdio->base.read_len = istream_stdio_read_len;
  stdio->file = stdin;
  return &stdio->base;
}

uint64_t istream_read_len(istream* stream, void* destination, uint64_t count) {
  return stream->read_len(stream, destination, count);
}

int istream_seek_pos(istream* stream, int origin, int64_t offset) {
  if (stream->seek_pos == nullptr) return -1;
  return stream->seek_pos(stream, origin, offset);
}

void istream_destroy(istream* stream) {
  if (stream == nullptr) return;
  if (stream->destroy != nullptr) stream->destroy(stream);
  free(stream);
}

uint64_t istream_stdio_read_len(istream* stream, void* destination, uint64_t count) {
  auto* stdio = reinterpret_cast<istream_stdio*>(stream);
  return fread(destination, 1, count, static_cast<FILE*>(stdio->file));
}

int64_t istream_remaining(istream* stream) {
  if (stream->read_len != memory_read) return -1;
  auto* memory = reinterpret_cast<istream_memory*>(stream);
  return static_cast<int64_t>(memory->size - memory->position);
}

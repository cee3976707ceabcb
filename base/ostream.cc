#include "base/ostream.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/runtime.h"

namespace {

constexpr uint64_t kFirstCapacity = 1024;

ostream* create_stdio(void* file) {
  auto* stdio = static_cast<ostream_stdio*>(runtime_zalloc(sizeof(ostream_stdio)));
  stdio->base.write_len = ostream_stdio_write_len;
  stdio->file = file;
  return &stdio->base;
}

}  // namespace

ostream* ostream_create_memory(char** buffer, uint64_t* size) {
  return ostream_create_memory2(buffer, size, 1);
}

ostream* ostream_create_memory2(char** buffer, uint64_t* size, int growable) {
  auto* memory = static_cast<ostream_memory*>(runtime_zalloc(sizeof(ostream_memory)));
  memory->base.write_len = ostream_memory_write_len;
  memory->base.finalize = ostream_memory_finalize;
  memory->buffer_ref = buffer;
  memory->capacity = *size;
  memory->length_ref = size;
  memory->growable = growable != 0 ? 1 : 0;
  *size = 0;
  return &memory->base;
}

ostream* ostream_create_stdout() { return create_stdio(stdout); }
ostream* ostream_create_stderr() { return create_stdio(stderr); }

uint64_t ostream_write_len(ostream* stream, const void* source, uint64_t count) {
  return stream->write_len(stream, source, count);
}

uint64_t ostream_write_string(ostream* stream, const char* text) {
  return stream->write_len(stream, text, strlen(text));
}

void ostream_destroy(ostream* stream) {
  if (stream == nullptr) return;
  if (stream->finalize != nullptr) stream->finalize(stream);
  free(stream);
}

uint64_t ostream_stdio_write_len(ostream* stream, const void* source, uint64_t count) {
  auto* stdio = reinterpret_cast<ostream_stdio*>(stream);
  return fwrite(source, 1, count, static_cast<FILE*>(stdio->file));
}

uint64_t ostream_memory_write_len(ostream* stream, const void* source, uint64_t count) {
  auto* memory = reinterpret_cast<ostream_memory*>(stream);
  uint64_t length = *memory->length_ref;
  if (count > memory->capacity - length) {
    if (!memory->growable) count = memory->capacity - length;
    else {
      uint64_t doubled = memory->capacity == 0 ? kFirstCapacity : memory->capacity * 2;
      uint64_t needed = length + count;
      memory->capacity = doubled > needed ? doubled : needed;
      *memory->buffer_ref = static_cast<char*>(runtime_realloc(*memory->buffer_ref, memory->capacity));
    }
  }
  if (count != 0) memcpy(*memory->buffer_ref + length, source, count);
  *memory->length_ref = length + count;
  return count;
}

uint64_t ostream_memory_finalize(ostream* stream) {
  auto* memory = reinterpret_cast<ostream_memory*>(stream);
  uint64_t length = *memory->length_ref;
  if (length + 1 > memory->capacity) {
    if (!memory->growable) return length;
    memory->capacity = length + 1;
    *memory->buffer_ref = static_cast<char*>(runtime_realloc(*memory->buffer_ref, memory->capacity));
  }
  (*memory->buffer_ref)[length] = '\0';
  return length;
}

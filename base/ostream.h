// Output byte streams. Every kind is a struct whose first member is
// `ostream`; records are heap allocated with runtime_zalloc and freed by
// ostream_destroy with free() after the kind's finalize hook ran.
#pragma once

#include <cstdint>

struct ostream;
using ostream_write_fn = uint64_t (*)(ostream* stream, const void* source, uint64_t count);
using ostream_finalize_fn = uint64_t (*)(ostream* stream);

struct ostream {
  ostream_write_fn write_len;  // returns the bytes taken; fewer means failure
  ostream_finalize_fn finalize;  // may be null
};

// Writes into the caller's own buffer pointer and size variable. At creation
// the size variable is read as the buffer's capacity and then set to 0. A
// growable stream regrows the caller's buffer (first to 1024 bytes, then
// doubling, or to what one write needs); a fixed one takes what fits.
// After ostream_destroy the buffer is zero-terminated when there was room,
// and the caller frees it with free().
struct ostream_memory {
  ostream base;
  char** buffer_ref;
  uint64_t capacity;
  uint64_t* length_ref;
  uint32_t growable;
};

struct ostream_stdio {
  ostream base;
  void* file;  // the platform's FILE*
};

ostream* ostream_create_memory(char** buffer, uint64_t* size);
ostream* ostream_create_memory2(char** buffer, uint64_t* size, int growable);
ostream* ostream_create_stdout();
ostream* ostream_create_stderr();

uint64_t ostream_write_len(ostream* stream, const void* source, uint64_t count);
uint64_t ostream_write_string(ostream* stream, const char* text);
void ostream_destroy(ostream* stream);

uint64_t ostream_stdio_write_len(ostream* stream, const void* source, uint64_t count);
uint64_t ostream_memory_write_len(ostream* stream, const void* source, uint64_t count);
// Returns the final length.
uint64_t ostream_memory_finalize(ostream* stream);

// Input byte streams: a small record that carries its own operations, so the
// message code reads bytes without knowing where they come from.
//
// Every kind is a struct whose first member is `istream`; records are heap
// allocated with runtime_zalloc and freed by istream_destroy with free().
#pragma once

#include <cstdint>

struct istream;
using istream_read_fn = uint64_t (*)(istream* stream, void* destination, uint64_t count);
using istream_seek_fn = int (*)(istream* stream, int origin, int64_t offset);
using istream_destroy_fn = void (*)(istream* stream);

struct istream {
  istream_read_fn read_len;  // fewer bytes than asked: end of data or failure
  istream_seek_fn seek_pos;  // origin 0 start, 1 current, 2 end; may be null
  istream_destroy_fn destroy;  // may be null
};

// Borrows `bytes`, which must outlive the stream.
struct istream_memory {
  istream base;
  const uint8_t* bytes;
  uint64_t size;
  uint64_t position;
};

struct istream_stdio {
  istream base;
  void* file;  // the platform's FILE*
};

istream* istream_create_memory(const void* bytes, uint64_t size);
istream* istream_create_stdin();

uint64_t istream_read_len(istream* stream, void* destination, uint64_t count);
// -1 when the stream cannot seek or the new position is out of bounds.
int istream_seek_pos(istream* stream, int origin, int64_t offset);
void istream_destroy(istream* stream);

uint64_t istream_stdio_read_len(istream* stream, void* destination, uint64_t count);

// How many bytes a memory input stream still holds, or -1 when the kind of
// stream cannot tell. Readers use it to refuse a declared length that the
// input cannot satisfy before reserving memory for it.
int64_t istream_remaining(istream* stream);

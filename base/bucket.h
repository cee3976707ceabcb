// The growable, always zero-terminated text buffer. Every path and every
// stack name in the system is a bucket.
//
// A zero-filled bucket is empty and owns nothing. The first write allocates
// 64 bytes; a write that makes the length reach the capacity regrows it to
// length + 64. Whoever holds the record owns the storage and releases it with
// bucket_release. Every operation given a null bucket does nothing.
#pragma once

#include <cstdint>

struct bucket {
  char* data;
  uint64_t capacity;
  uint64_t length;
};

// Zeroes the three fields without freeing; only for fresh records.
bucket* bucket_nil(bucket* b);
// Appends one byte (low 8 bits of `byte`); a zero byte counts as text too.
bucket* bucket_push(bucket* b, int byte);
// Appends a zero-terminated text; null changes nothing. The text must not
// lie inside the same bucket's storage.
bucket* bucket_append(bucket* b, const char* text);
// Appends each text up to the first null pointer.
bucket* bucket_appendv(bucket* b, ...) __attribute__((sentinel));
bucket* bucket_append_int(bucket* b, int64_t value);
// Removes the last `count` bytes (all of them when count >= length).
bucket* bucket_drop(bucket* b, uint64_t count);
// The text; a bucket without storage first gets storage holding "". The
// pointer stays valid until the next write to or release of the bucket.
char* bucket_cstring(bucket* b);
// Frees the storage and zeroes the record; harmless on an empty bucket.
void bucket_release(bucket* b);

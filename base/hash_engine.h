// Inside the hash family: the block functions of the two digest engines, the
// running state they keep in a context's engine_state, and the block
// functions in use. Only the hash sources see this header.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bigendian.h"
#include "base/hash.h"

// Running state of either engine, placed in hash_context::engine_state by
// hash_open. SHA-1 uses the first five words of `words`.
struct hash_engine {
  uint32_t words[8];       // chaining value, most significant word first
  uint64_t length;         // bytes taken so far, the pending ones included
  uint32_t pending;        // bytes waiting in `block` for a full block
  alignas(16) uint8_t block[64];
};
static_assert(sizeof(hash_engine) <= sizeof(hash_context::engine_state));
static_assert(alignof(hash_engine) <= alignof(hash_context));

// A block function folds `count` whole 64-byte blocks at `blocks` into the
// chaining value `words`. The blocks need no particular alignment.
using hash_blocks_fn = void (*)(uint32_t* words, const uint8_t* blocks, size_t count);

// The 64 round constants of SHA-256, shared by both of its block functions.
extern const uint32_t hash_sha256_constants[64];

void hash_sha1_portable(uint32_t* words, const uint8_t* blocks, size_t count);
void hash_sha256_portable(uint32_t* words, const uint8_t* blocks, size_t count);

// Accelerated block functions. REQUIRES: hash_accelerated_available().
void hash_sha1_shani(uint32_t* words, const uint8_t* blocks, size_t count);
void hash_sha256_shani(uint32_t* words, const uint8_t* blocks, size_t count);

// The block functions hash_write and hash_close use now.
hash_blocks_fn hash_sha1_blocks();
hash_blocks_fn hash_sha256_blocks();

// Streaming SHA-1 and SHA-256 over the library's own engines, and the
// lower-case hexadecimal text of a digest. Stacks get their keys from
// SHA-256. Calling order: hash_open, any number of hash_write, hash_close.
#pragma once

#include <cstdint>

constexpr uint32_t HASH_SHA1 = 0;
constexpr uint32_t HASH_SHA256 = 1;
constexpr uint32_t HASH_SHA1_SIZE = 20;
constexpr uint32_t HASH_SHA256_SIZE = 32;

struct hash_context {
  uint32_t algorithm;  // the selector given to hash_open
  alignas(16) uint8_t engine_state[1024];  // running state of the chosen engine
};

// Stores the selector, zeroes the engine state and starts the engine. With an
// unknown selector the later calls do nothing.
void hash_open(hash_context* context, uint32_t algorithm);
void hash_write(hash_context* context, const void* bytes, uint64_t length);
// Writes the 20- or 32-byte digest.
void hash_close(hash_context* context, uint8_t* digest);
// The engines: the processor's SHA extensions where it has them (with SSSE3
// and SSE4.1; asked of the processor once), the portable block functions
// elsewhere. Forcing the portable ones, from the next hash_write or
// hash_close on, is for tests and benchmarks.
bool hash_accelerated_available();
void hash_force_portable(bool on);

// Writes 2n hexadecimal characters and a terminator (41 or 65 bytes); only
// the terminator for an unknown selector.
void hash_maphex(uint32_t algorithm, const uint8_t* digest, char* text);

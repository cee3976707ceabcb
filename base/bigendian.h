// Big-endian integers in byte buffers, the one place the system spells byte
// order: every integer on the wire (the message encoding, the socket frames
// and chunks) and every word of a digest goes most significant byte first.
// Byte-wise shifts keep these free of alignment and host-order assumptions;
// the compiler turns them into one load or store and a byte swap.
#pragma once

#include <cstdint>

inline void bigendian_store32(uint8_t* bytes, uint32_t value) {
  bytes[0] = static_cast<uint8_t>(value >> 24);
  bytes[1] = static_cast<uint8_t>(value >> 16);
  bytes[2] = static_cast<uint8_t>(value >> 8);
  bytes[3] = static_cast<uint8_t>(value);
}

inline uint32_t bigendian_load32(const uint8_t* bytes) {
  return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
         (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

// Signed values travel as their two's-complement bit pattern.
inline void bigendian_store64(uint8_t* bytes, uint64_t value) {
  bigendian_store32(bytes, static_cast<uint32_t>(value >> 32));
  bigendian_store32(bytes + 4, static_cast<uint32_t>(value));
}

inline uint64_t bigendian_load64(const uint8_t* bytes) {
  return (static_cast<uint64_t>(bigendian_load32(bytes)) << 32) | bigendian_load32(bytes + 4);
}

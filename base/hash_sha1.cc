// The portable SHA-1 block function: plain integer code for any processor.
// Rounds are unrolled so the five working variables rotate by renaming; the
// message schedule is expanded in a 16-word ring while the rounds consume it.
#include <bit>

#include "base/hash_engine.h"

namespace {

using std::rotl;

// Word i of the schedule; from 16 on it is written over word i - 16 in the ring.
[[gnu::always_inline]] inline uint32_t word_at(uint32_t* ring, const uint8_t* block, int i) {
  if (i < 16) return ring[i] = bigendian_load32(block + 4 * i);
  uint32_t mixed = ring[(i - 3) & 15] ^ ring[(i - 8) & 15] ^ ring[(i - 14) & 15] ^ ring[i & 15];
  return ring[i & 15] = rotl(mixed, 1);
}

// Round i with the working variables in their current roles: `e` receives
// the new a and `b` its rotated self, so the caller names the next round's
// roles by shifting the argument list one place to the right. After full
// unrolling `i` is a constant and the choice of function disappears.
[[gnu::always_inline]] inline void round(int i, uint32_t a, uint32_t& b, uint32_t c, uint32_t d,
                                         uint32_t& e, uint32_t word) {
  if (i < 20) {
    e += (d ^ (b & (c ^ d))) + 0x5a827999;
  } else if (i < 40) {
    e += (b ^ c ^ d) + 0x6ed9eba1;
  } else if (i < 60) {
    e += ((b & c) | (d & (b | c))) + 0x8f1bbcdc;
  } else {
    e += (b ^ c ^ d) + 0xca62c1d6;
  }
  e += rotl(a, 5) + word;
  b = rotl(b, 30);
}

void fold_block(uint32_t* words, const uint8_t* block) {
  uint32_t ring[16];
  uint32_t a = words[0], b = words[1], c = words[2], d = words[3], e = words[4];

#pragma GCC unroll 16
  for (int i = 0; i < 80; i += 5) {
    round(i, a, b, c, d, e, word_at(ring, block, i));
    round(i + 1, e, a, b, c, d, word_at(ring, block, i + 1));
    round(i + 2, d, e, a, b, c, word_at(ring, block, i + 2));
    round(i + 3, c, d, e, a, b, word_at(ring, block, i + 3));
    round(i + 4, b, c, d, e, a, word_at(ring, block, i + 4));
  }

  words[0] += a;
  words[1] += b;
  words[2] += c;
  words[3] += d;
  words[4] += e;
}

}  // namespace

void hash_sha1_portable(uint32_t* words, const uint8_t* blocks, size_t count) {
  for (size_t n = 0; n < count; ++n) fold_block(words, blocks + 64 * n);
}

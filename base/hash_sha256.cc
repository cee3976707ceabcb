// The portable SHA-256 block function: plain integer code for any processor.
// Rounds are unrolled so the eight working variables stay in registers and
// rotate by renaming instead of moving; the message schedule is expanded in
// a 16-word ring while the rounds consume it.
#include <bit>

#include "base/hash_engine.h"

const uint32_t hash_sha256_constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

namespace {

using std::rotr;

// One round with the working variables passed in their current roles: `d`
// receives the new e and `h` the new a, so the caller names the next round's
// roles by passing the same variables shifted one role along. `previous`
// carries a ^ b into the next round, where it is b ^ c: the majority then
// costs two operations instead of four. The nested rotations need fewer
// register copies than three separate ones.
[[gnu::always_inline]] inline void round(uint32_t a, uint32_t b, uint32_t& d, uint32_t e,
                                         uint32_t f, uint32_t g, uint32_t& h,
                                         uint32_t& previous, uint32_t constant_plus_word) {
  h += rotr(rotr(rotr(e, 14) ^ e, 5) ^ e, 6) + (g ^ (e & (f ^ g))) + constant_plus_word;
  d += h;
  uint32_t a_xor_b = a ^ b;
  h += rotr(rotr(rotr(a, 9) ^ a, 11) ^ a, 2) + (b ^ (a_xor_b & previous));
  previous = a_xor_b;
}

// Word i (16 or later) of the schedule, written over word i - 16 in the ring.
[[gnu::always_inline]] inline uint32_t expand(uint32_t* ring, int i) {
  uint32_t w15 = ring[(i - 15) & 15];
  uint32_t w2 = ring[(i - 2) & 15];
  ring[i & 15] += (rotr(rotr(w2, 2) ^ w2, 17) ^ (w2 >> 10)) + ring[(i - 7) & 15] +
                  (rotr(rotr(w15, 11) ^ w15, 7) ^ (w15 >> 3));
  return ring[i & 15];
}

void fold_block(uint32_t* words, const uint8_t* block) {
  const uint32_t* k = hash_sha256_constants;
  uint32_t ring[16];
  uint32_t a = words[0], b = words[1], c = words[2], d = words[3];
  uint32_t e = words[4], f = words[5], g = words[6], h = words[7];
  uint32_t previous = b ^ c;

#pragma GCC unroll 2
  for (int i = 0; i < 16; i += 8) {
#pragma GCC unroll 8
    for (int j = 0; j < 8; ++j) ring[i + j] = bigendian_load32(block + 4 * (i + j));
    round(a, b, d, e, f, g, h, previous, k[i] + ring[i]);
    round(h, a, c, d, e, f, g, previous, k[i + 1] + ring[i + 1]);
    round(g, h, b, c, d, e, f, previous, k[i + 2] + ring[i + 2]);
    round(f, g, a, b, c, d, e, previous, k[i + 3] + ring[i + 3]);
    round(e, f, h, a, b, c, d, previous, k[i + 4] + ring[i + 4]);
    round(d, e, g, h, a, b, c, previous, k[i + 5] + ring[i + 5]);
    round(c, d, f, g, h, a, b, previous, k[i + 6] + ring[i + 6]);
    round(b, c, e, f, g, h, a, previous, k[i + 7] + ring[i + 7]);
  }
#pragma GCC unroll 6
  for (int i = 16; i < 64; i += 8) {
    round(a, b, d, e, f, g, h, previous, k[i] + expand(ring, i));
    round(h, a, c, d, e, f, g, previous, k[i + 1] + expand(ring, i + 1));
    round(g, h, b, c, d, e, f, previous, k[i + 2] + expand(ring, i + 2));
    round(f, g, a, b, c, d, e, previous, k[i + 3] + expand(ring, i + 3));
    round(e, f, h, a, b, c, d, previous, k[i + 4] + expand(ring, i + 4));
    round(d, e, g, h, a, b, c, previous, k[i + 5] + expand(ring, i + 5));
    round(c, d, f, g, h, a, b, previous, k[i + 6] + expand(ring, i + 6));
    round(b, c, e, f, g, h, a, previous, k[i + 7] + expand(ring, i + 7));
  }

  words[0] += a;
  words[1] += b;
  words[2] += c;
  words[3] += d;
  words[4] += e;
  words[5] += f;
  words[6] += g;
  words[7] += h;
}

}  // namespace

void hash_sha256_portable(uint32_t* words, const uint8_t* blocks, size_t count) {
  for (size_t n = 0; n < count; ++n) fold_block(words, blocks + 64 * n);
}

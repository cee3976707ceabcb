// The accelerated block functions, built on the processor's SHA extensions,
// and the run-time check that they may be used. Only these functions are
// compiled for those instructions, so the rest of the program, and the
// binary as a whole, still runs on processors without them.
#include "base/hash_engine.h"

#if defined(__x86_64__) || defined(__i386__)

#include <cpuid.h>
#include <immintrin.h>

#define HASH_ACCELERATED __attribute__((target("sha,sse4.1,ssse3")))

namespace {

bool processor_has_sha() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return false;
  if ((ecx & bit_SSSE3) == 0 || (ecx & bit_SSE4_1) == 0) return false;
  if (__get_cpuid_max(0, nullptr) < 7) return false;
  __cpuid_count(7, 0, eax, ebx, ecx, edx);
  return (ebx & bit_SHA) != 0;
}

}  // namespace

bool hash_accelerated_available() {
  static const bool available = processor_has_sha();
  return available;
}

// The SHA-1 instructions keep a, b, c, d in one vector with a in the top lane
// and carry e (pre-rotated by the next-e instruction) in the top lane of a
// second vector; message words also sit most significant lane first. Each
// group does four rounds and, overlapped with them, advances the schedule of
// later groups in the 4-group ring `w`.
HASH_ACCELERATED void hash_sha1_shani(uint32_t* words, const uint8_t* blocks, size_t count) {
  const __m128i reverse_bytes = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(words)), 0x1b);
  __m128i e0 = _mm_set_epi32(static_cast<int>(words[4]), 0, 0, 0);

  for (; count != 0; --count, blocks += 64) {
    const __m128i abcd_saved = abcd;
    const __m128i e_saved = e0;
    __m128i w[4];
    __m128i e1;
    for (int i = 0; i < 4; ++i) {
      __m128i raw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 16 * i));
      w[i] = _mm_shuffle_epi8(raw, reverse_bytes);
    }

    // Group 0 adds e itself; later groups take the rotated a of the group
    // before through the next-e instruction. e0 and e1 take turns.
    e0 = _mm_add_epi32(e0, w[0]);
    e1 = abcd;
    abcd = _mm_sha1rnds4_epu32(abcd, e0, 0);
#pragma GCC unroll 19
    for (int g = 1; g < 20; ++g) {
      __m128i& e_now = (g & 1) != 0 ? e1 : e0;
      __m128i& e_next = (g & 1) != 0 ? e0 : e1;
      e_now = _mm_sha1nexte_epu32(e_now, w[g & 3]);
      e_next = abcd;
      // Group g + 1 of the schedule is finished here, g + 2 and g + 3 advanced.
      if (g >= 3 && g <= 18) w[(g + 1) & 3] = _mm_sha1msg2_epu32(w[(g + 1) & 3], w[g & 3]);
      switch (g / 5) {
        case 0: abcd = _mm_sha1rnds4_epu32(abcd, e_now, 0); break;
        case 1: abcd = _mm_sha1rnds4_epu32(abcd, e_now, 1); break;
        case 2: abcd = _mm_sha1rnds4_epu32(abcd, e_now, 2); break;
        default: abcd = _mm_sha1rnds4_epu32(abcd, e_now, 3); break;
      }
      if (g >= 1 && g <= 16) w[(g - 1) & 3] = _mm_sha1msg1_epu32(w[(g - 1) & 3], w[g & 3]);
      if (g >= 2 && g <= 17) w[(g - 2) & 3] = _mm_xor_si128(w[(g - 2) & 3], w[g & 3]);
    }

    // Group 19 left the last a, still unrotated, in e0.
    e0 = _mm_sha1nexte_epu32(e0, e_saved);
    abcd = _mm_add_epi32(abcd, abcd_saved);
  }

  _mm_storeu_si128(reinterpret_cast<__m128i*>(words), _mm_shuffle_epi32(abcd, 0x1b));
  words[4] = static_cast<uint32_t>(_mm_extract_epi32(e0, 3));
}

// The SHA-256 instructions keep the state as the two vectors {a, b, e, f} and
// {c, d, g, h} and do two rounds each; a group of four rounds feeds them the
// low then the high half of four scheduled words plus constants. The schedule
// of later groups is advanced in the 4-group ring `w`, overlapped with rounds.
HASH_ACCELERATED void hash_sha256_shani(uint32_t* words, const uint8_t* blocks, size_t count) {
  const __m128i swap_words = _mm_set_epi64x(0x0c0d0e0f08090a0bLL, 0x0405060700010203LL);
  const __m128i* constants = reinterpret_cast<const __m128i*>(hash_sha256_constants);
  __m128i dcba = _mm_loadu_si128(reinterpret_cast<const __m128i*>(words));
  __m128i hgfe = _mm_loadu_si128(reinterpret_cast<const __m128i*>(words + 4));
  __m128i cdab = _mm_shuffle_epi32(dcba, 0xb1);
  __m128i efgh = _mm_shuffle_epi32(hgfe, 0x1b);
  __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
  __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xf0);

  for (; count != 0; --count, blocks += 64) {
    const __m128i abef_saved = abef;
    const __m128i cdgh_saved = cdgh;
    __m128i w[4];
    for (int i = 0; i < 4; ++i) {
      __m128i raw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 16 * i));
      w[i] = _mm_shuffle_epi8(raw, swap_words);
    }

#pragma GCC unroll 16
    for (int g = 0; g < 16; ++g) {
      __m128i input = _mm_add_epi32(w[g & 3], _mm_loadu_si128(constants + g));
      cdgh = _mm_sha256rnds2_epu32(cdgh, abef, input);
      // Group g + 1 of the schedule is finished here, overlapping the rounds.
      if (g >= 3 && g <= 14) {
        __m128i& next = w[(g + 1) & 3];
        next = _mm_add_epi32(next, _mm_alignr_epi8(w[g & 3], w[(g - 1) & 3], 4));
        next = _mm_sha256msg2_epu32(next, w[g & 3]);
      }
      abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(input, 0x0e));
      if (g >= 1 && g <= 12) w[(g - 1) & 3] = _mm_sha256msg1_epu32(w[(g - 1) & 3], w[g & 3]);
    }

    abef = _mm_add_epi32(abef, abef_saved);
    cdgh = _mm_add_epi32(cdgh, cdgh_saved);
  }

  __m128i feba = _mm_shuffle_epi32(abef, 0x1b);
  __m128i dchg = _mm_shuffle_epi32(cdgh, 0xb1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(words), _mm_blend_epi16(feba, dchg, 0xf0));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(words + 4), _mm_alignr_epi8(dchg, feba, 8));
}

#else  // no SHA extensions on this architecture

bool hash_accelerated_available() { return false; }

// Never chosen: hash_accelerated_available() is false here.
void hash_sha1_shani(uint32_t* words, const uint8_t* blocks, size_t count) {
  hash_sha1_portable(words, blocks, count);
}

void hash_sha256_shani(uint32_t* words, const uint8_t* blocks, size_t count) {
  hash_sha256_portable(words, blocks, count);
}

#endif

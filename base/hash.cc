#include "base/hash.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/hash_engine.h"

namespace {

constexpr uint32_t kSha1Start[5] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
constexpr uint32_t kSha256Start[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

// The daemon is single-threaded; only tests and benchmarks flip this.
bool portable_forced = false;

bool use_accelerated() { return !portable_forced && hash_accelerated_available(); }

hash_engine* engine_of(hash_context* context) {
  return std::launder(reinterpret_cast<hash_engine*>(context->engine_state));
}

// Words in the digest of `algorithm`; 0 for a selector without an engine.
uint32_t digest_words(uint32_t algorithm) {
  if (algorithm == HASH_SHA1) return HASH_SHA1_SIZE / 4;
  if (algorithm == HASH_SHA256) return HASH_SHA256_SIZE / 4;
  return 0;
}

hash_blocks_fn blocks_of(uint32_t algorithm) {
  return algorithm == HASH_SHA1 ? hash_sha1_blocks() : hash_sha256_blocks();
}

// Tops up a partly filled block first, folds whole blocks straight from the
// caller's bytes, and keeps the tail for the next write or the close.
void absorb(hash_engine* engine, hash_blocks_fn fold, const uint8_t* bytes, uint64_t length) {
  engine->length += length;
  if (engine->pending != 0) {
    uint64_t take = std::min<uint64_t>(sizeof engine->block - engine->pending, length);
    memcpy(engine->block + engine->pending, bytes, take);
    engine->pending += static_cast<uint32_t>(take);
    bytes += take;
    length -= take;
    if (engine->pending < sizeof engine->block) return;
    fold(engine->words, engine->block, 1);
    engine->pending = 0;
  }
  uint64_t whole = length / 64;
  if (whole != 0) {
    fold(engine->words, bytes, static_cast<size_t>(whole));
    bytes += whole * 64;
    length -= whole * 64;
  }
  memcpy(engine->block, bytes, length);
  engine->pending = static_cast<uint32_t>(length);
}

// The closing padding: a one bit, zeros up to 56 bytes into a block, then
// the message length in bits as a big-endian 64-bit number. When fewer than
// 8 bytes are left after the one bit, the length goes into one more block.
void pad(hash_engine* engine, hash_blocks_fn fold) {
  uint64_t bits = engine->length * 8;
  engine->block[engine->pending++] = 0x80;
  if (engine->pending > 56) {
    memset(engine->block + engine->pending, 0, sizeof engine->block - engine->pending);
    fold(engine->words, engine->block, 1);
    engine->pending = 0;
  }
  memset(engine->block + engine->pending, 0, 56 - engine->pending);
  bigendian_store64(engine->block + 56, bits);
  fold(engine->words, engine->block, 1);
}

}  // namespace

void hash_force_portable(bool on) { portable_forced = on; }

hash_blocks_fn hash_sha1_blocks() {
  return use_accelerated() ? hash_sha1_shani : hash_sha1_portable;
}

hash_blocks_fn hash_sha256_blocks() {
  return use_accelerated() ? hash_sha256_shani : hash_sha256_portable;
}

void hash_open(hash_context* context, uint32_t algorithm) {
  context->algorithm = algorithm;
  memset(context->engine_state, 0, sizeof context->engine_state);
  uint32_t words = digest_words(algorithm);
  if (words == 0) return;
  hash_engine* engine = new (context->engine_state) hash_engine{};
  memcpy(engine->words, algorithm == HASH_SHA1 ? kSha1Start : kSha256Start, words * 4);
}

void hash_write(hash_context* context, const void* bytes, uint64_t length) {
  if (digest_words(context->algorithm) == 0 || length == 0) return;
  absorb(engine_of(context), blocks_of(context->algorithm), static_cast<const uint8_t*>(bytes),
         length);
}

void hash_close(hash_context* context, uint8_t* digest) {
  uint32_t words = digest_words(context->algorithm);
  if (words == 0) return;
  hash_engine* engine = engine_of(context);
  pad(engine, blocks_of(context->algorithm));
  for (uint32_t i = 0; i < words; ++i) bigendian_store32(digest + 4 * i, engine->words[i]);
}

void hash_maphex(uint32_t algorithm, const uint8_t* digest, char* text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  uint32_t size = digest_words(algorithm) * 4;
  for (uint32_t i = 0; i < size; ++i) {
    *text++ = kDigits[digest[i] >> 4];
    *text++ = kDigits[digest[i] & 0x0f];
  }
  *text = '\0';
}

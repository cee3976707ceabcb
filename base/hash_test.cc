#include "base/hash.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/hash_engine.h"

namespace {

enum class Path { portable, accelerated };

void PrintTo(Path path, std::ostream* out) {
  *out << (path == Path::portable ? "portable" : "accelerated");
}

std::string hex_of(uint32_t algorithm, const uint8_t* digest) {
  char text[HASH_SHA256_SIZE * 2 + 1];
  hash_maphex(algorithm, digest, text);
  return text;
}

std::string digest_whole(hash_context* context, uint32_t algorithm, std::string_view bytes) {
  uint8_t digest[HASH_SHA256_SIZE];
  hash_open(context, algorithm);
  hash_write(context, bytes.data(), bytes.size());
  hash_close(context, digest);
  return hex_of(algorithm, digest);
}

// Feeds `bytes` in pieces of random sizes up to `largest`, with empty writes
// scattered in between.
std::string digest_in_pieces(uint32_t algorithm, std::string_view bytes, std::mt19937& random,
                             size_t largest) {
  hash_context context;
  uint8_t digest[HASH_SHA256_SIZE];
  hash_open(&context, algorithm);
  std::uniform_int_distribution<size_t> piece(0, largest);
  size_t done = 0;
  while (done < bytes.size()) {
    size_t size = std::min(piece(random), bytes.size() - done);
    hash_write(&context, bytes.data() + done, size);
    done += size;
  }
  hash_write(&context, nullptr, 0);
  hash_close(&context, digest);
  return hex_of(algorithm, digest);
}

std::string random_bytes(size_t size, std::mt19937& random) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() & 0xff);
  return bytes;
}

struct Vector {
  uint32_t algorithm;
  std::string message;
  const char* hex;
};

std::vector<Vector> known_vectors() {
  const std::string m448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  const std::string m896 =
      "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmno"
      "pqrsmnopqrstnopqrstu";
  const std::string million(1000000, 'a');
  return {
      {HASH_SHA1, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {HASH_SHA1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {HASH_SHA1, m448, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {HASH_SHA1, m896, "a49b2446a02c645bf419f995b67091253a04a259"},
      {HASH_SHA1, million, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
      // Lengths where the closing padding just fits, just spills, or fills a block.
      {HASH_SHA1, std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
      {HASH_SHA1, std::string(63, 'a'), "03f09f5b158a7a8cdad920bddc29b81c18a551f5"},
      {HASH_SHA1, std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
      {HASH_SHA1, std::string(65, 'a'), "11655326c708d70319be2610e8a57d9a5b959d3b"},
      {HASH_SHA256, "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {HASH_SHA256, "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {HASH_SHA256, m448, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {HASH_SHA256, m896, "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
      {HASH_SHA256, million, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      {HASH_SHA256, std::string(55, 'a'),
       "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
      {HASH_SHA256, std::string(63, 'a'),
       "7d3e74a05d7db15bce4ad9ec0658ea98e3f06eeecf16b4c6fff2da457ddc2f34"},
      {HASH_SHA256, std::string(64, 'a'),
       "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
      {HASH_SHA256, std::string(65, 'a'),
       "635361c48bb9eab14198e76ea8ab7f1a41685d6ad62aa9146d301d4f17eb0ae0"},
  };
}

// Runs each test once on the portable block functions and once on the
// accelerated ones; the latter is skipped on processors without them.
class HashPath : public ::testing::TestWithParam<Path> {
 protected:
  void SetUp() override {
    if (GetParam() == Path::accelerated && !hash_accelerated_available()) {
      GTEST_SKIP() << "this processor lacks the SHA extensions";
    }
    hash_force_portable(GetParam() == Path::portable);
  }
  void TearDown() override { hash_force_portable(false); }
};

TEST_P(HashPath, KnownDigestsWholeAndInPieces) {
  std::mt19937 random(1805);
  hash_context context;  // reused: every hash_open must start afresh
  for (const Vector& vector : known_vectors()) {
    SCOPED_TRACE(testing::Message() << "algorithm " << vector.algorithm << ", "
                                    << vector.message.size() << " bytes");
    EXPECT_EQ(digest_whole(&context, vector.algorithm, vector.message), vector.hex);
    EXPECT_EQ(digest_in_pieces(vector.algorithm, vector.message, random, 150), vector.hex);
  }
}

TEST_P(HashPath, AbcOneByteAtATimeMatchesOnePiece) {
  for (uint32_t algorithm : {HASH_SHA1, HASH_SHA256}) {
    hash_context whole;
    std::string expected = digest_whole(&whole, algorithm, "abc");
    hash_context bytewise;
    uint8_t digest[HASH_SHA256_SIZE];
    hash_open(&bytewise, algorithm);
    for (char byte : std::string_view("abc")) hash_write(&bytewise, &byte, 1);
    hash_close(&bytewise, digest);
    EXPECT_EQ(hex_of(algorithm, digest), expected);
  }
}

// Random contents around the block and padding boundaries and a few longer
// runs, fed in random pieces: small pieces exercise the partial block, large
// ones the whole blocks taken straight from the caller's bytes.
TEST_P(HashPath, RandomPiecesMatchOnePiece) {
  std::mt19937 random(20240611);
  std::vector<size_t> sizes;
  for (size_t size = 0; size <= 200; ++size) sizes.push_back(size);
  for (size_t size : {1000, 4095, 4096, 4097, 65536 + 55}) sizes.push_back(size);
  for (uint32_t algorithm : {HASH_SHA1, HASH_SHA256}) {
    for (size_t size : sizes) {
      SCOPED_TRACE(testing::Message() << "algorithm " << algorithm << ", " << size << " bytes");
      std::string bytes = random_bytes(size, random);
      hash_context context;
      std::string expected = digest_whole(&context, algorithm, bytes);
      EXPECT_EQ(digest_in_pieces(algorithm, bytes, random, 70), expected);
      EXPECT_EQ(digest_in_pieces(algorithm, bytes, random, size), expected);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Hash, HashPath, ::testing::Values(Path::portable, Path::accelerated),
                         [](const testing::TestParamInfo<Path>& info) {
                           return info.param == Path::portable ? "portable" : "accelerated";
                         });

TEST(Hash, PortableAndAcceleratedAgree) {
  if (!hash_accelerated_available()) GTEST_SKIP() << "this processor lacks the SHA extensions";
  std::mt19937 random(77);
  for (uint32_t algorithm : {HASH_SHA1, HASH_SHA256}) {
    for (size_t size = 0; size < 1200; size += 37) {
      std::string bytes = random_bytes(size, random);
      hash_context context;
      hash_force_portable(true);
      std::string portable = digest_whole(&context, algorithm, bytes);
      hash_force_portable(false);
      EXPECT_EQ(digest_whole(&context, algorithm, bytes), portable)
          << "algorithm " << algorithm << ", " << size << " bytes";
    }
  }
}

TEST(Hash, CloseWritesExactlyTheDigestSize) {
  for (uint32_t algorithm : {HASH_SHA1, HASH_SHA256}) {
    uint32_t size = algorithm == HASH_SHA1 ? HASH_SHA1_SIZE : HASH_SHA256_SIZE;
    uint8_t digest[HASH_SHA256_SIZE + 8];
    memset(digest, 0xee, sizeof digest);
    hash_context context;
    hash_open(&context, algorithm);
    hash_close(&context, digest);
    for (uint32_t i = size; i < sizeof digest; ++i) EXPECT_EQ(digest[i], 0xee) << "byte " << i;
  }
}

TEST(Hash, UnknownSelectorZeroesStateAndDoesNothingElse) {
  hash_context context;
  memset(&context, 0xa5, sizeof context);
  hash_open(&context, 7);
  EXPECT_EQ(context.algorithm, 7u);
  for (uint8_t byte : context.engine_state) ASSERT_EQ(byte, 0);

  hash_write(&context, "abc", 3);
  for (uint8_t byte : context.engine_state) ASSERT_EQ(byte, 0);

  uint8_t digest[HASH_SHA256_SIZE];
  memset(digest, 0x5a, sizeof digest);
  hash_close(&context, digest);
  for (uint8_t byte : digest) EXPECT_EQ(byte, 0x5a);
}

TEST(Hash, MaphexSpellsEachByteAsTwoLowerCaseDigits) {
  uint8_t counting[HASH_SHA1_SIZE];
  for (uint8_t i = 0; i < HASH_SHA1_SIZE; ++i) counting[i] = i;
  char text[HASH_SHA1_SIZE * 2 + 2];
  memset(text, '#', sizeof text);
  hash_maphex(HASH_SHA1, counting, text);
  EXPECT_STREQ(text, "000102030405060708090a0b0c0d0e0f10111213");
  EXPECT_EQ(text[HASH_SHA1_SIZE * 2 + 1], '#');

  // All 256 byte values across eight SHA-256 digests, against printf's spelling.
  for (int first = 0; first < 256; first += HASH_SHA256_SIZE) {
    uint8_t digest[HASH_SHA256_SIZE];
    std::string expected;
    for (uint32_t i = 0; i < HASH_SHA256_SIZE; ++i) {
      digest[i] = static_cast<uint8_t>(first + i);
      char pair[3];
      snprintf(pair, sizeof pair, "%02x", digest[i]);
      expected += pair;
    }
    char wide[HASH_SHA256_SIZE * 2 + 2];
    memset(wide, '#', sizeof wide);
    hash_maphex(HASH_SHA256, digest, wide);
    EXPECT_STREQ(wide, expected.c_str());
    EXPECT_EQ(wide[HASH_SHA256_SIZE * 2 + 1], '#');
  }
}

TEST(Hash, MaphexUnknownSelectorWritesOnlyTheTerminator) {
  const uint8_t digest[HASH_SHA256_SIZE] = {0xab, 0xcd};
  char text[4] = {'#', '#', '#', '#'};
  hash_maphex(2, digest, text);
  EXPECT_EQ(text[0], '\0');
  EXPECT_EQ(text[1], '#');
}

}  // namespace

#include "base/hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

// The hexadecimal digest of `bytes` fed in pieces of random sizes up to
// `largest` (all at once without `random`), with an empty write before closing.
std::string digest(uint32_t algorithm, std::string_view bytes, std::mt19937* random = nullptr,
                   size_t largest = 0) {
  hash_context context;
  memset(&context, 0x5c, sizeof context);  // every hash_open must start afresh
  hash_open(&context, algorithm);
  std::uniform_int_distribution<size_t> piece(0, largest);
  for (size_t done = 0, size; done < bytes.size(); done += size) {
    size = random == nullptr ? bytes.size() : std::min(piece(*random), bytes.size() - done);
    hash_write(&context, bytes.data() + done, size);
  }
  hash_write(&context, nullptr, 0);
  uint8_t result[HASH_SHA256_SIZE];
  char text[HASH_SHA256_SIZE * 2 + 1];
  hash_close(&context, result);
  hash_maphex(algorithm, result, text);
  return text;
}

// Runs each test once on the portable block functions and once on the
// accelerated ones; the latter is skipped on processors without them.
class HashPath : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!GetParam() && !hash_accelerated_available()) GTEST_SKIP() << "no SHA extensions here";
    hash_force_portable(GetParam());
  }
  void TearDown() override { hash_force_portable(false); }
};

// The closing padding, common to both engines, just fits (55 bytes), spills
// into one more block (56) or starts a block of its own (64).
TEST_P(HashPath, KnownDigests) {
  const std::string m448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  const struct { uint32_t algorithm; std::string message; const char* hex; } vectors[] = {
      {HASH_SHA1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {HASH_SHA1, std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
      {HASH_SHA256, "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {HASH_SHA256, "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {HASH_SHA256, m448, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {HASH_SHA256, std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      {HASH_SHA256, std::string(55, 'a'), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
      {HASH_SHA256, std::string(64, 'a'), "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
  };
  for (const auto& vector : vectors) {
    EXPECT_EQ(digest(vector.algorithm, vector.message), vector.hex)
        << "algorithm " << vector.algorithm << ", " << vector.message.size() << " bytes";
  }
}

// Random contents around the block and padding boundaries and a few longer
// runs: small pieces exercise the partial block, large ones the whole blocks
// taken straight from the caller's bytes. The reference is the one-piece
// digest on the portable path, so the accelerated path must agree with it.
TEST_P(HashPath, RandomPiecesMatchOnePortablePiece) {
  std::mt19937 random(20240611);
  std::vector<size_t> sizes;
  for (size_t size = 0; size <= 200; ++size) sizes.push_back(size);
  for (size_t size : {1000, 4095, 4096, 4097, 65536 + 55}) sizes.push_back(size);
  for (uint32_t algorithm : {HASH_SHA1, HASH_SHA256}) {
    for (size_t size : sizes) {
      SCOPED_TRACE(testing::Message() << "algorithm " << algorithm << ", " << size << " bytes");
      std::string bytes(size, '\0');
      for (char& byte : bytes) byte = static_cast<char>(random());
      hash_force_portable(true);
      std::string expected = digest(algorithm, bytes);
      hash_force_portable(GetParam());
      EXPECT_EQ(digest(algorithm, bytes), expected);
      EXPECT_EQ(digest(algorithm, bytes, &random, 70), expected);
      EXPECT_EQ(digest(algorithm, bytes, &random, size), expected);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Hash, HashPath, ::testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "portable" : "accelerated";
                         });

TEST(Hash, CloseAndMaphexWriteExactlyTheirSizeAndUnknownSelectorsNothing) {
  for (auto [algorithm, size] : {std::pair{HASH_SHA1, HASH_SHA1_SIZE}, {HASH_SHA256, HASH_SHA256_SIZE}, {7u, 0u}}) {
    uint8_t result[HASH_SHA256_SIZE + 8];
    char text[sizeof result * 2];
    memset(result, 0xee, sizeof result);
    memset(text, '#', sizeof text);
    hash_context context;
    hash_open(&context, algorithm);
    hash_write(&context, "abc", 3);
    hash_close(&context, result);
    for (uint32_t i = size; i < sizeof result; ++i) EXPECT_EQ(result[i], 0xee) << "byte " << i;
    hash_maphex(algorithm, result, text);
    EXPECT_EQ(strlen(text), size * 2);
    EXPECT_EQ(text[size * 2 + 1], '#') << "nothing past the terminator";
  }
}

}  // namespace

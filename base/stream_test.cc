#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "base/istream.h"
#include "base/ostream.h"

TEST(MemoryInput, ReadsAreClippedAndSeeksStayWithinZeroToSize) {
  const char bytes[] = "0123456789";
  istream* in = istream_create_memory(bytes, 10);
  char got[16] = {};
  EXPECT_EQ(istream_read_len(in, got, 4), 4u);
  EXPECT_EQ(istream_read_len(in, got, 8), 6u);
  EXPECT_EQ(std::string(got, 6), "456789");
  EXPECT_EQ(istream_read_len(in, got, 1), 0u);
  // {origin, offset, result, remaining afterwards}, from the end; a refused seek keeps the position.
  const struct { int origin; int64_t offset; int result; int64_t remaining; } seeks[] = {
      {1, -6, 0, 6}, {1, 7, -1, 6}, {2, 1, -1, 6},          {2, -10, 0, 10},
      {1, -1, -1, 10}, {1, INT64_MIN, -1, 10}, {0, 10, 0, 0}, {3, 0, -1, 0},
  };
  for (const auto& seek : seeks) {
    EXPECT_EQ(istream_seek_pos(in, seek.origin, seek.offset), seek.result) << seek.origin << " " << seek.offset;
    EXPECT_EQ(istream_remaining(in), seek.remaining) << seek.origin << " " << seek.offset;
  }
  istream_destroy(in);
  in = istream_create_stdin();
  EXPECT_EQ(istream_remaining(in), -1) << "only a memory stream can tell";
  istream_destroy(in);
}

// Writes that land short of, exactly on and past the end of the buffer, and
// one larger than a doubling; the terminator then needs room of its own.
TEST(MemoryOutput, GrowsAsWritesNeedAndEndsWithATerminator) {
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  std::string expected;
  for (auto [fill, count] : {std::pair{'a', 10}, {'b', 1014}, {'c', 1000}, {'d', 10000}}) {
    std::string bytes(count, fill);
    EXPECT_EQ(ostream_write_len(out, bytes.data(), bytes.size()), bytes.size());
    expected += bytes;
  }
  ostream_destroy(out);
  EXPECT_EQ(size, expected.size());
  EXPECT_EQ(std::string(buffer, size + 1), expected + '\0');
  free(buffer);

  // Nothing written still leaves a 1-byte terminated buffer.
  buffer = nullptr;
  size = 0;
  ostream_destroy(ostream_create_memory(&buffer, &size));
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(buffer[0], '\0');
  free(buffer);
}

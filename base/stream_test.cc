// Memory and standard streams: the read/seek bounds and the growth and
// terminator rules of the memory output stream.
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
  EXPECT_EQ(istream_seek_pos(in, 0, 6), 0);
  // {origin, offset, result, remaining afterwards}; a refused seek keeps the position.
  const struct { int origin; int64_t offset; int result; int64_t remaining; } seeks[] = {
      {1, -2, 0, 6},  {1, 7, -1, 6},  {1, 3, 0, 3},          {2, 0, 0, 0},  {2, 1, -1, 0},
      {2, -10, 0, 10}, {2, -11, -1, 10}, {0, 11, -1, 10},    {0, 10, 0, 0}, {0, -1, -1, 0},
      {1, INT64_MIN, -1, 0}, {3, 0, -1, 0}, {1, -10, 0, 10},
  };
  for (const auto& seek : seeks) {
    EXPECT_EQ(istream_seek_pos(in, seek.origin, seek.offset), seek.result)
        << "origin " << seek.origin << " offset " << seek.offset;
    EXPECT_EQ(istream_remaining(in), seek.remaining) << "origin " << seek.origin << " offset " << seek.offset;
  }
  istream_destroy(in);

  in = istream_create_stdin();
  EXPECT_EQ(istream_seek_pos(in, 0, 0), -1);
  EXPECT_EQ(istream_remaining(in), -1);
  istream_destroy(in);
}

uint64_t capacity_of(ostream* out) { return reinterpret_cast<ostream_memory*>(out)->capacity; }

TEST(MemoryOutput, GrowsTo1024ThenDoublesOrTakesWhatAWriteNeeds) {
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  // The 'b' write fills the buffer exactly; the terminator then needs one more byte.
  const struct { char fill; size_t count; uint64_t capacity; } writes[] = {
      {'a', 10, 1024}, {'b', 1014, 1024}, {'c', 1000, 2048}, {'d', 10000, 12024}};
  for (const auto& write : writes) {
    std::string bytes(write.count, write.fill);
    EXPECT_EQ(ostream_write_len(out, bytes.data(), bytes.size()), write.count);
    EXPECT_EQ(capacity_of(out), write.capacity) << "after the '" << write.fill << "' write";
  }
  EXPECT_EQ(size, 12024u);
  ostream_destroy(out);
  EXPECT_EQ(size, 12024u);
  EXPECT_EQ(std::string(buffer, 12025), std::string(10, 'a') + std::string(1014, 'b') +
                                            std::string(1000, 'c') + std::string(10000, 'd') + '\0');
  free(buffer);

  // Nothing written still leaves a 1-byte terminated buffer.
  buffer = nullptr;
  size = 0;
  out = ostream_create_memory(&buffer, &size);
  ostream_destroy(out);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(buffer[0], '\0');
  free(buffer);
}

TEST(MemoryOutput, FixedBufferTakesWhatFitsAndIsNotTerminated) {
  char storage[5] = {'.', '.', '.', '.', '#'};
  char* buffer = storage;
  uint64_t size = 4;
  ostream* out = ostream_create_memory2(&buffer, &size, 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(ostream_write_len(out, "abcdef", 6), 4u);
  EXPECT_EQ(ostream_write_len(out, "g", 1), 0u);
  ostream_destroy(out);
  EXPECT_EQ(buffer, storage);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(std::string(storage, 5), "abcd#");
}

// Memory and standard streams: the read/seek bounds and the growth and
// terminator rules of the memory output stream.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/istream.h"
#include "base/ostream.h"

TEST(MemoryInput, ReadsAreClippedAtTheEnd) {
  const char bytes[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
  istream* in = istream_create_memory(bytes, sizeof bytes);
  char got[16] = {};
  EXPECT_EQ(istream_read_len(in, got, 4), 4u);
  EXPECT_EQ(istream_read_len(in, got, 8), 6u);
  EXPECT_EQ(std::string(got, 6), "456789");
  EXPECT_EQ(istream_read_len(in, got, 1), 0u);
  EXPECT_EQ(istream_remaining(in), 0);
  istream_destroy(in);
}

TEST(MemoryInput, SeekStaysWithinZeroToSize) {
  const char bytes[10] = {};
  istream* in = istream_create_memory(bytes, sizeof bytes);
  char got[6];
  istream_read_len(in, got, 6);
  EXPECT_EQ(istream_seek_pos(in, 1, -2), 0);
  EXPECT_EQ(istream_remaining(in), 6);  // position 4
  EXPECT_EQ(istream_seek_pos(in, 1, 7), -1);
  EXPECT_EQ(istream_remaining(in), 6) << "a refused seek leaves the position";
  EXPECT_EQ(istream_seek_pos(in, 1, 3), 0);
  EXPECT_EQ(istream_remaining(in), 3);
  EXPECT_EQ(istream_seek_pos(in, 2, 0), 0);
  EXPECT_EQ(istream_remaining(in), 0);
  EXPECT_EQ(istream_seek_pos(in, 2, 1), -1);
  EXPECT_EQ(istream_seek_pos(in, 2, -10), 0);
  EXPECT_EQ(istream_remaining(in), 10);
  EXPECT_EQ(istream_seek_pos(in, 2, -11), -1);
  EXPECT_EQ(istream_seek_pos(in, 0, 11), -1);
  EXPECT_EQ(istream_seek_pos(in, 0, -1), -1);
  EXPECT_EQ(istream_seek_pos(in, 1, INT64_MIN), -1);
  EXPECT_EQ(istream_seek_pos(in, 3, 0), -1);
  EXPECT_EQ(istream_remaining(in), 10);
  istream_destroy(in);
}

TEST(StandardInput, CannotSeekAndHasNoKnownRemainder) {
  istream* in = istream_create_stdin();
  EXPECT_EQ(istream_seek_pos(in, 0, 0), -1);
  EXPECT_EQ(istream_remaining(in), -1);
  istream_destroy(in);
}

TEST(MemoryOutput, GrowsTo1024ThenDoublesOrTakesWhatAWriteNeeds) {
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  std::string ten(10, 'a');
  EXPECT_EQ(ostream_write_len(out, ten.data(), ten.size()), 10u);
  EXPECT_EQ(size, 10u);
  EXPECT_EQ(reinterpret_cast<ostream_memory*>(out)->capacity, 1024u);
  std::string big(2000, 'b');
  EXPECT_EQ(ostream_write_len(out, big.data(), big.size()), 2000u);
  EXPECT_EQ(size, 2010u);
  EXPECT_EQ(reinterpret_cast<ostream_memory*>(out)->capacity, 2048u);
  std::string huge(10000, 'c');
  ostream_write_len(out, huge.data(), huge.size());
  EXPECT_EQ(reinterpret_cast<ostream_memory*>(out)->capacity, 12010u) << "one write needing more than double";
  ostream_destroy(out);
  EXPECT_EQ(size, 12010u);
  EXPECT_EQ(buffer[12010], '\0');
  EXPECT_EQ(buffer[0], 'a');
  EXPECT_EQ(buffer[10], 'b');
  EXPECT_EQ(buffer[2010], 'c');
  free(buffer);
}

TEST(MemoryOutput, FinalizeTerminatesAndFitsTheBuffer) {
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  EXPECT_EQ(ostream_write_string(out, ""), 0u);
  ostream_destroy(out);
  ASSERT_NE(buffer, nullptr) << "nothing written still leaves a 1-byte terminated buffer";
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(buffer[0], '\0');
  free(buffer);

  buffer = nullptr;
  size = 0;
  out = ostream_create_memory(&buffer, &size);
  std::string exact(1024, 'x');
  ostream_write_len(out, exact.data(), exact.size());
  ostream_destroy(out);
  EXPECT_EQ(size, 1024u);
  EXPECT_EQ(buffer[1024], '\0') << "a full buffer grows by one byte for the terminator";
  free(buffer);
}

TEST(MemoryOutput, FixedBufferTakesWhatFitsAndIsNotTerminated) {
  char buffer_storage[5] = {'.', '.', '.', '.', '#'};
  char* buffer = buffer_storage;
  uint64_t size = 4;
  ostream* out = ostream_create_memory2(&buffer, &size, 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(ostream_write_len(out, "abcdef", 6), 4u);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(ostream_write_len(out, "g", 1), 0u);
  ostream_destroy(out);
  EXPECT_EQ(buffer, buffer_storage);
  EXPECT_EQ(std::string(buffer_storage, 5), "abcd#");
}

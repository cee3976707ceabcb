#include "base/bucket.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string text(bucket* b) { return std::string(bucket_cstring(b), b->length); }

// However a write meets the end of the storage, byte by byte or a text at a
// time, there is room left for the terminator.
TEST(Bucket, StaysTerminatedAcrossEveryGrowth) {
  bucket b{};
  EXPECT_STREQ(bucket_cstring(&b), "") << "a nil bucket gets storage for the empty text";
  std::string expected;
  for (int i = 0; i < 300; ++i) {
    std::string piece(i % 5, static_cast<char>('a' + i % 26));
    bucket_append(&b, piece.c_str());
    bucket_push(&b, i == 70 ? 0x100 : '.');  // only the low 8 bits count, a zero byte too
    expected += piece + (i == 70 ? '\0' : '.');
    ASSERT_GT(b.capacity, b.length);
    ASSERT_EQ(b.data[b.length], '\0');
  }
  EXPECT_EQ(text(&b), expected);
  bucket_release(&b);
}

TEST(Bucket, DecimalIntegersIncludingTheExtremes) {
  bucket b{};
  for (int64_t value : {int64_t{0}, int64_t{-7}, int64_t{1234567890}, INT64_MIN, INT64_MAX}) {
    bucket_append_int(&b, value);
    bucket_push(&b, ' ');
  }
  EXPECT_EQ(text(&b), "0 -7 1234567890 -9223372036854775808 9223372036854775807 ");
  bucket_release(&b);
}

TEST(Bucket, DropAppendvReleaseAndNullBuckets) {
  bucket b{};
  bucket_drop(&b, 3);
  EXPECT_EQ(b.data, nullptr) << "dropping from a nil bucket gives it no storage";
  bucket_appendv(&b, "a", "", "b", nullptr, "c", nullptr);
  bucket_append(&b, nullptr);
  EXPECT_EQ(text(&b), "ab");
  bucket_drop(&b, 1);
  EXPECT_EQ(text(&b), "a");
  bucket_drop(&b, 99);
  EXPECT_EQ(text(&b), "");
  bucket_release(&b);
  bucket_release(&b);
  EXPECT_EQ(b.data, nullptr);
  EXPECT_EQ(b.capacity + b.length, 0u);
  EXPECT_EQ(bucket_append(nullptr, "x"), nullptr);
  EXPECT_EQ(bucket_cstring(nullptr), nullptr);
}

}  // namespace

#include "base/bucket.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string text(bucket* b) { return std::string(bucket_cstring(b), b->length); }

}  // namespace

TEST(Bucket, AppendGrowsToLengthPlus64WhenTheLengthReachesTheCapacity) {
  bucket b{};
  bucket_append(&b, "0123456789");
  EXPECT_EQ(b.capacity, 64u);
  EXPECT_EQ(b.length, 10u);
  bucket_append(&b, std::string(53, 'x').c_str());
  EXPECT_EQ(b.capacity, 64u) << "63 bytes and the terminator still fit";
  bucket_append(&b, "y");
  EXPECT_EQ(b.length, 64u);
  EXPECT_EQ(b.capacity, 128u);
  EXPECT_EQ(b.data[64], '\0');
  bucket_release(&b);
}

TEST(Bucket, PushGrowsOnTheSixtyFourthByte) {
  bucket b{};
  for (int i = 0; i < 63; ++i) bucket_push(&b, 'a' + i % 26);
  EXPECT_EQ(b.capacity, 64u);
  bucket_push(&b, 'z');
  EXPECT_EQ(b.length, 64u);
  EXPECT_EQ(b.capacity, 128u);
  EXPECT_EQ(b.data[b.length], '\0');
  // A zero byte is one byte of text like any other.
  bucket_push(&b, 0x100);
  EXPECT_EQ(b.length, 65u);
  EXPECT_EQ(b.data[64], '\0');
  bucket_release(&b);
}

TEST(Bucket, CstringOfNilGivesStorageWithTheEmptyText) {
  bucket b{};
  EXPECT_STREQ(bucket_cstring(&b), "");
  EXPECT_EQ(b.capacity, 64u);
  EXPECT_EQ(b.length, 0u);
  bucket_release(&b);
}

TEST(Bucket, DecimalIntegersIncludingTheExtremes) {
  bucket b{};
  bucket_append_int(&b, 0);
  bucket_append(&b, " ");
  bucket_append_int(&b, -7);
  bucket_append(&b, " ");
  bucket_append_int(&b, 1234567890);
  bucket_append(&b, " ");
  bucket_append_int(&b, INT64_MIN);
  bucket_append(&b, " ");
  bucket_append_int(&b, INT64_MAX);
  EXPECT_EQ(text(&b), "0 -7 1234567890 -9223372036854775808 9223372036854775807");
  bucket_release(&b);
}

TEST(Bucket, DropAppendvAndRelease) {
  bucket b{};
  bucket_drop(&b, 3);
  EXPECT_EQ(b.data, nullptr) << "dropping from a nil bucket gives it no storage";
  bucket_appendv(&b, "a", "", "b", nullptr, "c", nullptr);
  EXPECT_EQ(text(&b), "ab");
  bucket_drop(&b, 1);
  EXPECT_EQ(text(&b), "a");
  bucket_drop(&b, 99);
  EXPECT_EQ(text(&b), "");
  EXPECT_EQ(b.capacity, 64u) << "dropping keeps the storage";
  bucket_append(&b, nullptr);
  EXPECT_EQ(b.length, 0u);
  bucket_release(&b);
  bucket_release(&b);
  EXPECT_EQ(b.data, nullptr);
  EXPECT_EQ(b.capacity, 0u);
  EXPECT_EQ(b.length, 0u);
}

TEST(Bucket, NullBucketIsANoOp) {
  EXPECT_EQ(bucket_append(nullptr, "x"), nullptr);
  EXPECT_EQ(bucket_push(nullptr, 'x'), nullptr);
  EXPECT_EQ(bucket_cstring(nullptr), nullptr);
  bucket_release(nullptr);
}

#include "base/bucket.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string text(bucket* b) { return std::string(bucket_cstring(b), b->length); }

TEST(Bucket, GrowsByLength64OnlyWhenTheLengthReachesTheCapacity) {
  bucket b{};
  EXPECT_STREQ(bucket_cstring(&b), "");  // a nil bucket gets storage for the empty text
  EXPECT_EQ(b.capacity, 64u);
  bucket_append(&b, std::string(62, 'x').c_str());
  bucket_push(&b, 'y');
  EXPECT_EQ(b.capacity, 64u) << "63 bytes and the terminator still fit";
  bucket_append(&b, "z");
  EXPECT_EQ(b.length, 64u);
  EXPECT_EQ(b.capacity, 128u);
  EXPECT_EQ(b.data[64], '\0');
  for (int i = 64; i < 127; ++i) bucket_push(&b, 0x100);  // a zero byte counts as text
  EXPECT_EQ(b.capacity, 128u);
  bucket_push(&b, 'p');
  EXPECT_EQ(b.length, 128u);
  EXPECT_EQ(b.capacity, 192u);
  EXPECT_EQ(b.data[64], '\0');
  EXPECT_EQ(b.data[128], '\0');
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

TEST(Bucket, DropAppendvAndRelease) {
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
  EXPECT_EQ(b.capacity, 64u) << "dropping keeps the storage";
  bucket_release(&b);
  bucket_release(&b);
  EXPECT_EQ(b.data, nullptr);
  EXPECT_EQ(b.capacity + b.length, 0u);
  EXPECT_EQ(bucket_append(nullptr, "x"), nullptr);
  EXPECT_EQ(bucket_push(nullptr, 'x'), nullptr);
  EXPECT_EQ(bucket_cstring(nullptr), nullptr);
}

}  // namespace

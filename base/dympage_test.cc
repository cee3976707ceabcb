#include "base/dympage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

bool all_zero(const void* block, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(block);
  return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

// A page costs its size plus a 24-byte header; the arena's record takes 16 bytes of the first.
constexpr uint64_t kPage = 10485760, kHeader = 24;

TEST(PageArena, RecordPaddingAndOversizedRequestsAreTakenFromPages) {
  dympage* arena = dympage_create();
  EXPECT_EQ(arena->page_size, kPage);
  EXPECT_EQ(dympage_usage(arena), kPage + kHeader);
  EXPECT_EQ(dympage_overhead(arena), kPage - 16);
  auto* one = static_cast<uint8_t*>(dympage_alloc(arena, 1, 1));
  auto* eight = static_cast<uint8_t*>(dympage_alloc(arena, 8, 8));
  EXPECT_EQ(eight - one, 8) << "7 bytes of padding after the single byte";
  EXPECT_EQ(reinterpret_cast<uintptr_t>(eight) % 8, 0u);
  EXPECT_EQ(dympage_overhead(arena), kPage - 32);

  const uint64_t twenty_mib = 20u << 20;
  void* big = dympage_alloc(arena, twenty_mib, 8);
  EXPECT_EQ(dympage_usage(arena), kPage + kHeader + twenty_mib + kHeader);
  EXPECT_EQ(arena->current->remaining, 0u) << "a page of exactly the request's size";
  EXPECT_TRUE(all_zero(big, twenty_mib));
  dympage_alloc(arena, 8, 8);
  EXPECT_EQ(dympage_usage(arena), 2 * (kPage + kHeader) + twenty_mib + kHeader);
  dympage_destroy(arena);
}

TEST(PageArena, BlocksComeZeroFilledEvenWhenMemoryIsReused) {
  for (int round = 0; round < 3; ++round) {
    dympage* arena = dympage_create2(256);
    for (int i = 0; i < 100; ++i) {
      auto* block = static_cast<uint8_t*>(dympage_alloc(arena, 24, 8));
      ASSERT_TRUE(all_zero(block, 24));
      memset(block, 0xAB, 24);
    }
    dympage_destroy(arena);
  }
}

TEST(PageArena, TinyPagesCallerHeldRecordsAndRefusedRequests) {
  dympage* tiny = dympage_create2(8);
  // The 8-byte first page could not take the 16-byte record.
  EXPECT_EQ(dympage_usage(tiny), (kHeader + 8) + (kHeader + 16));
  EXPECT_NE(dympage_alloc(tiny, 4, 4), nullptr);
  EXPECT_EQ(dympage_try_alloc(tiny, UINT64_MAX - 8, 1), nullptr) << "refused, not a crash";
  EXPECT_EQ(dympage_try_alloc(tiny, uint64_t{1} << 62, 1), nullptr);
  EXPECT_NE(dympage_try_alloc(tiny, 100, 1), nullptr) << "the arena stays usable";
  dympage_destroy(tiny);

  dympage arena{};
  dympage_page* first = dympage_init2(&arena, 64);
  EXPECT_EQ(dympage_overhead(&arena), 64u);
  dympage_alloc(&arena, 64, 8);
  EXPECT_EQ(arena.current, first) << "an exactly fitting block stays on the page";
  dympage_alloc(&arena, 1, 1);
  EXPECT_EQ(arena.current->previous, first);
  dympage_destroy(&arena);
}

}  // namespace

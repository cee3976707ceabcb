#include "base/dympage.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

bool all_zero(const void* block, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(block);
  for (size_t i = 0; i < size; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

}  // namespace

TEST(PageArena, CreatedArenaCarriesItsRecordInTheFirstPage) {
  dympage* arena = dympage_create();
  EXPECT_EQ(arena->page_size, 10485760u);
  EXPECT_EQ(dympage_overhead(arena), 10485744u);
  EXPECT_EQ(dympage_usage(arena), 10485784u);
  dympage_destroy(arena);
}

TEST(PageArena, AlignmentPaddingIsTakenFromThePage) {
  dympage* arena = dympage_create();
  auto* one = static_cast<uint8_t*>(dympage_alloc(arena, 1, 1));
  auto* eight = static_cast<uint8_t*>(dympage_alloc(arena, 8, 8));
  EXPECT_EQ(eight - one, 8) << "7 bytes of padding after the single byte";
  EXPECT_EQ(reinterpret_cast<uintptr_t>(eight) % 8, 0u);
  EXPECT_EQ(dympage_overhead(arena), 10485744u - 16u);
  dympage_destroy(arena);
}

TEST(PageArena, OversizedRequestGetsAPageOfItsOwnSize) {
  dympage* arena = dympage_create();
  const uint64_t twenty_mib = 20u << 20;
  void* big = dympage_alloc(arena, twenty_mib, 8);
  EXPECT_EQ(dympage_usage(arena), 10485784u + 24u + twenty_mib);
  EXPECT_EQ(arena->current->remaining, 0u);
  EXPECT_TRUE(all_zero(big, twenty_mib));
  dympage_alloc(arena, 8, 8);
  EXPECT_EQ(dympage_usage(arena), 10485784u + 24u + twenty_mib + 10485784u) << "then a fresh normal page";
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

TEST(PageArena, TinyPagesStillHoldTheRecord) {
  dympage* arena = dympage_create2(8);
  EXPECT_EQ(arena->page_size, 8u);
  // The 8-byte first page could not take the 16-byte record.
  EXPECT_EQ(dympage_usage(arena), (24u + 8u) + (24u + 16u));
  void* block = dympage_alloc(arena, 4, 4);
  EXPECT_NE(block, nullptr);
  dympage_destroy(arena);
}

TEST(PageArena, CallerHeldRecord) {
  dympage arena{};
  dympage_page* first = dympage_init2(&arena, 64);
  EXPECT_EQ(arena.current, first);
  EXPECT_EQ(dympage_overhead(&arena), 64u);
  dympage_alloc(&arena, 64, 8);
  EXPECT_EQ(arena.current, first);
  dympage_alloc(&arena, 1, 1);
  EXPECT_NE(arena.current, first);
  EXPECT_EQ(arena.current->previous, first);
  dympage_destroy(&arena);
}

TEST(PageArena, TryAllocRefusesWhatTheHeapCannotGive) {
  dympage* arena = dympage_create2(1024);
  EXPECT_EQ(dympage_try_alloc(arena, UINT64_MAX - 8, 1), nullptr);
  EXPECT_EQ(dympage_try_alloc(arena, uint64_t{1} << 62, 1), nullptr);
  EXPECT_NE(dympage_try_alloc(arena, 100, 1), nullptr) << "the arena stays usable";
  dympage_destroy(arena);
}

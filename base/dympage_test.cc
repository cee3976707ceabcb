#include "base/dympage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

bool all_zero(const uint8_t* bytes, size_t size) {
  return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

// Requests below, at and above the page size, at every alignment, come
// aligned and zero-filled, however the heap used that memory before.
TEST(PageArena, BlocksAreAlignedZeroFilledAndMayOutgrowAPage) {
  for (int round = 0; round < 3; ++round) {
    dympage* arena = dympage_create2(256);
    uint64_t taken = 0;
    for (uint64_t size : {1, 3, 24, 256, 300, 7, 5000}) {
      for (uint64_t alignment : {1, 2, 8}) {
        auto* block = static_cast<uint8_t*>(dympage_alloc(arena, size, alignment));
        ASSERT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0u);
        ASSERT_TRUE(all_zero(block, size));
        memset(block, 0xAB, size);
        taken += size;
      }
    }
    EXPECT_GE(dympage_usage(arena), taken + dympage_overhead(arena));
    dympage_destroy(arena);
  }
  dympage* arena = dympage_create();
  auto* one = static_cast<uint8_t*>(dympage_alloc(arena, 1, 1));
  EXPECT_EQ(static_cast<uint8_t*>(dympage_alloc(arena, 8, 8)) - one, 8) << "only the padding that aligns";
  dympage_destroy(arena);
}

TEST(PageArena, TinyPagesCallerHeldRecordsAndRefusedRequests) {
  dympage* tiny = dympage_create2(8);  // too small even for the arena's own record
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

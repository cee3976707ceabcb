// The growable array and the slot pool.
#include "base/dymarray.h"
#include "base/dympool.h"

#include <gtest/gtest.h>

namespace {

int& int_at(dymarray* array, uint64_t index) { return *static_cast<int*>(dymarray_at(array, index)); }
int& push(dymarray* array) { return *static_cast<int*>(dymarray_alloc(array)); }

TEST(Array, GrowsLinearlyByItsStepAndIteratesInOrder) {
  dymarray array;
  dymarray_init(&array, sizeof(int), 0);
  EXPECT_EQ(array.step, 64u) << "step 0 means the default";
  for (int i = 0; i < 64; ++i) push(&array) = i;
  EXPECT_EQ(array.capacity, 64u);
  push(&array) = 64;
  EXPECT_EQ(array.capacity, 128u);
  EXPECT_EQ(dymarray_overhead(&array), 63u);
  int expected = 0;
  for (const void* e = dymarray_cbegin(&array); e != dymarray_cend(&array); e = dymarray_cnext(&array, e))
    EXPECT_EQ(*static_cast<const int*>(e), expected++);
  EXPECT_EQ(expected, 65);
  EXPECT_EQ(dymarray_indexof(&array, dymarray_at(&array, 5)), 5u);
  dymarray_destroy(&array);
}

TEST(Array, PopRewindSwapSortAndZeroFilledReuse) {
  dymarray array;
  dymarray_init(&array, sizeof(int), 2);
  EXPECT_EQ(dymarray_pop_back(&array), 0u);
  EXPECT_EQ(dymarray_last(&array), nullptr);
  for (int v : {5, 3, 9, 1}) push(&array) = v;
  EXPECT_EQ(array.capacity, 4u) << "grown by the given step of 2";
  dymarray_swap(&array, 0, 3);
  EXPECT_EQ(int_at(&array, 0), 1);
  EXPECT_EQ(*static_cast<int*>(dymarray_last(&array)), 5);
  dymarray_sort(&array, [](const void* a, const void* b) {
    int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
    return (x > y) - (x < y);
  });
  const int sorted[] = {1, 3, 5, 9};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(int_at(&array, i), sorted[i]);
  dymarray_rewind(&array, 10);
  EXPECT_EQ(dymarray_size(&array), 4u) << "rewinding past the size changes nothing";
  dymarray_rewind(&array, 1);
  EXPECT_EQ(dymarray_pop_back(&array), 0u);
  EXPECT_EQ(push(&array), 0) << "a released element comes back zero-filled";
  dymarray_destroy(&array);
}

TEST(Pool, HandsOutSlotsFromTheTopAndReusesTheLastFreed) {
  dympool pool;
  dympool_init(&pool, 16, 4);
  auto* first = static_cast<uint8_t*>(dympool_alloc(&pool));
  auto* page = static_cast<uint8_t*>(pool.pages);
  auto* second = static_cast<uint8_t*>(dympool_alloc(&pool));
  EXPECT_EQ(first, page + 3 * 16);
  EXPECT_EQ(second, page + 2 * 16);
  EXPECT_EQ(dympool_alloc(&pool), page + 16);
  EXPECT_EQ(dympool_overhead(&pool), 0u);
  dympool_alloc(&pool);
  EXPECT_EQ(dympool_pages(&pool), 2u);
  EXPECT_EQ(dympool_overhead(&pool), 2u);

  memset(second, 0xFF, 16);
  dympool_free(&pool, first);
  dympool_free(&pool, second);
  EXPECT_EQ(dympool_alloc(&pool), second);
  EXPECT_EQ(second[15], 0) << "reused slots come zero-filled";
  EXPECT_EQ(dympool_alloc(&pool), first);
  dympool_destroy(&pool);
}

}  // namespace

// The growable array and the slot pool.
#include "base/dymarray.h"
#include "base/dympool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

namespace {

int& int_at(dymarray* array, uint64_t index) { return *static_cast<int*>(dymarray_at(array, index)); }
int& push(dymarray* array) { return *static_cast<int*>(dymarray_alloc(array)); }
int by_value(const void* a, const void* b) { return *static_cast<const int*>(a) - *static_cast<const int*>(b); }

TEST(Array, KeepsItsElementsInOrderAcrossGrowths) {
  for (uint64_t step : {0, 1, 3}) {  // 0: the default step
    dymarray array;
    dymarray_init(&array, sizeof(int), step);
    for (int i = 0; i < 130; ++i) push(&array) = i;
    int expected = 0;
    for (const void* e = dymarray_cbegin(&array); e != dymarray_cend(&array); e = dymarray_cnext(&array, e))
      EXPECT_EQ(*static_cast<const int*>(e), expected++) << "step " << step;
    EXPECT_EQ(expected, 130);
    EXPECT_EQ(dymarray_indexof(&array, dymarray_at(&array, 129)), 129u);
    dymarray_destroy(&array);
  }
}

TEST(Array, PopRewindSwapSortAndZeroFilledReuse) {
  dymarray array;
  dymarray_init(&array, sizeof(int), 2);
  EXPECT_EQ(dymarray_pop_back(&array), 0u);
  EXPECT_EQ(dymarray_last(&array), nullptr);
  for (int v : {5, 3, 9, 1}) push(&array) = v;
  dymarray_swap(&array, 0, 3);
  EXPECT_EQ(int_at(&array, 0), 1);
  EXPECT_EQ(*static_cast<int*>(dymarray_last(&array)), 5);
  dymarray_sort(&array, by_value);
  EXPECT_EQ(std::vector<int>(&int_at(&array, 0), &int_at(&array, 4)), (std::vector<int>{1, 3, 5, 9}));
  dymarray_rewind(&array, 10);
  EXPECT_EQ(dymarray_size(&array), 4u) << "rewinding past the size changes nothing";
  dymarray_rewind(&array, 1);
  EXPECT_EQ(dymarray_pop_back(&array), 0u);
  EXPECT_EQ(push(&array), 0) << "a released element comes back zero-filled";
  dymarray_destroy(&array);
}

TEST(Pool, SlotsAreDistinctZeroFilledAndReusedLastFreedFirst) {
  dympool pool;
  dympool_init(&pool, 16, 4);
  std::set<uint8_t*> slots;
  for (int i = 0; i < 10; ++i) {  // four pool pages
    auto* slot = static_cast<uint8_t*>(dympool_alloc(&pool));
    EXPECT_EQ(slot[15], 0);
    memset(slot, 0xFF, 16);  // a slot over a page's link would break dympool_destroy
    EXPECT_TRUE(slots.insert(slot).second) << "slot " << i << " handed out twice";
  }
  EXPECT_EQ(dympool_pages(&pool), 4u) << "three slots a page: the first holds the link";
  uint8_t *low = *slots.begin(), *high = *slots.rbegin();
  dympool_free(&pool, low);
  dympool_free(&pool, high);
  EXPECT_EQ(dympool_alloc(&pool), high);
  EXPECT_EQ(dympool_alloc(&pool), low);
  EXPECT_EQ(low[15], 0) << "reused slots come zero-filled";
  dympool_destroy(&pool);
}

}  // namespace

// A growable array of fixed-size elements with linear growth: each growth
// adds `step` elements. Pointers to elements are invalidated by a growth.
#pragma once

#include <cstdint>

struct dymarray {
  uint64_t element_size;
  uint64_t step;  // 64 when initialised with 0
  void* data;  // null until the first growth
  uint64_t capacity;
  uint64_t count;
};

void dymarray_init(dymarray* array, uint64_t element_size, uint64_t step);
// Frees the elements; the other fields keep their values.
void dymarray_destroy(dymarray* array);
// Appends one zero-filled element and returns it.
void* dymarray_alloc(dymarray* array);
void* dymarray_at(dymarray* array, uint64_t index);  // no bounds check
const void* dymarray_cat(const dymarray* array, uint64_t index);
void* dymarray_last(dymarray* array);  // null when empty
const void* dymarray_clast(const dymarray* array);
void* dymarray_begin(dymarray* array);
const void* dymarray_cbegin(const dymarray* array);
void* dymarray_next(dymarray* array, void* element);
const void* dymarray_cnext(const dymarray* array, const void* element);
void* dymarray_end(dymarray* array);  // one past the last element
const void* dymarray_cend(const dymarray* array);
uint64_t dymarray_indexof(const dymarray* array, const void* element);
uint64_t dymarray_size(const dymarray* array);
// Removes the last element if any; returns the new count.
uint64_t dymarray_pop_back(dymarray* array);
// Shrinks the count to n; never grows.
void dymarray_rewind(dymarray* array, uint64_t n);
void dymarray_swap(dymarray* array, uint64_t i, uint64_t j);
void dymarray_sort(dymarray* array, int (*compare)(const void*, const void*));
uint64_t dymarray_overhead(const dymarray* array);

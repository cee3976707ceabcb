#include "base/dymarray.h"

#include <cstdlib>
#include <cstring>

#include "base/runtime.h"

namespace {
constexpr uint64_t kDefaultStep = 64;

uint8_t* bytes(const dymarray* array) { return static_cast<uint8_t*>(array->data); }
}  // namespace

void dymarray_init(dymarray* array, uint64_t element_size, uint64_t step) {
  *array = dymarray{};
  array->element_size = element_size;
  array->step = step == 0 ? kDefaultStep : step;
}

void dymarray_destroy(dymarray* array) {
  free(array->data);
  array->data = nullptr;
}

void* dymarray_alloc(dymarray* array) {
  if (array->count == array->capacity) {
    array->capacity += array->step;
    array->data = runtime_realloc(array->data, array->capacity * array->element_size);
  }
  void* element = bytes(array) + array->count * array->element_size;
  memset(element, 0, array->element_size);
  array->count += 1;
  return element;
}

void* dymarray_at(dymarray* array, uint64_t index) { return bytes(array) + index * array->element_size; }
const void* dymarray_cat(const dymarray* array, uint64_t index) { return bytes(array) + index * array->element_size; }

void* dymarray_last(dymarray* array) {
  return array->count == 0 ? nullptr : dymarray_at(array, array->count - 1);
}
const void* dymarray_clast(const dymarray* array) {
  return array->count == 0 ? nullptr : dymarray_cat(array, array->count - 1);
}

void* dymarray_begin(dymarray* array) { return array->data; }
const void* dymarray_cbegin(const dymarray* array) { return array->data; }

void* dymarray_next(dymarray* array, void* element) { return static_cast<uint8_t*>(element) + array->element_size; }
const void* dymarray_cnext(const dymarray* array, const void* element) {
  return static_cast<const uint8_t*>(element) + array->element_size;
}

void* dymarray_end(dymarray* array) { return bytes(array) + array->count * array->element_size; }
const void* dymarray_cend(const dymarray* array) { return bytes(array) + array->count * array->element_size; }

uint64_t dymarray_indexof(const dymarray* array, const void* element) {
  return static_cast<uint64_t>(static_cast<const uint8_t*>(element) - bytes(array)) / array->element_size;
}

uint64_t dymarray_size(const dymarray* array) { return array->count; }

uint64_t dymarray_pop_back(dymarray* array) {
  if (array->count != 0) array->count -= 1;
  return array->count;
}

void dymarray_rewind(dymarray* array, uint64_t n) {
  if (array->count > n) array->count = n;
}

void dymarray_swap(dymarray* array, uint64_t i, uint64_t j) {
  if (i == j) return;
  uint8_t* a = bytes(array) + i * array->element_size;
  uint8_t* b = bytes(array) + j * array->element_size;
  for (uint64_t k = 0; k < array->element_size; ++k) {
    uint8_t held = a[k];
    a[k] = b[k];
    b[k] = held;
  }
}

void dymarray_sort(dymarray* array, int (*compare)(const void*, const void*)) {
  if (array->count > 1) qsort(array->data, array->count, array->element_size, compare);
}

uint64_t dymarray_overhead(const dymarray* array) { return array->capacity - array->count; }

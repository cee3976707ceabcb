#include "base/dympage.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "base/runtime.h"

namespace {

// A heap block is 16-byte aligned and the header is 24 bytes, so every data
// area starts 8-byte aligned.
dympage_page* make_page(dympage_page* previous, uint64_t data_size) {
  if (data_size > SIZE_MAX - DYMPAGE_HEADER_SIZE) return nullptr;
  auto* page = static_cast<dympage_page*>(malloc(DYMPAGE_HEADER_SIZE + data_size));
  if (page == nullptr) return nullptr;
  page->previous = previous;
  page->cursor = reinterpret_cast<uint8_t*>(page) + DYMPAGE_HEADER_SIZE;
  page->remaining = data_size;
  return page;
}

dympage_page* make_page_or_die(dympage_page* previous, uint64_t data_size) {
  dympage_page* page = make_page(previous, data_size);
  if (page == nullptr) runtime_out_of_memory();
  return page;
}

uint64_t padding_for(const uint8_t* cursor, uint64_t alignment) {
  auto address = reinterpret_cast<uintptr_t>(cursor);
  return (alignment - (address & (alignment - 1))) & (alignment - 1);
}

void* allocate(dympage* arena, uint64_t size, uint64_t alignment, bool may_fail) {
  assert(alignment != 0 && (alignment & (alignment - 1)) == 0);
  uint64_t new_page_size = arena->page_size > size ? arena->page_size : size;
  for (;;) {
    dympage_page* page = arena->current;
    uint64_t padding = padding_for(page->cursor, alignment);
    if (page->remaining >= padding) {
      page->cursor += padding;
      page->remaining -= padding;
      if (page->remaining >= size) {
        uint8_t* block = page->cursor;
        page->cursor += size;
        page->remaining -= size;
        memset(block, 0, size);
        return block;
      }
    }
    dympage_page* fresh = may_fail ? make_page(page, new_page_size) : make_page_or_die(page, new_page_size);
    if (fresh == nullptr) return nullptr;
    arena->current = fresh;
  }
}

}  // namespace

dympage* dympage_create() { return dympage_create2(DYMPAGE_DEFAULT_PAGE_SIZE); }

dympage* dympage_create2(uint64_t page_size) {
  dympage bootstrap{make_page_or_die(nullptr, page_size), page_size};
  auto* arena = static_cast<dympage*>(allocate(&bootstrap, sizeof(dympage), 8, false));
  // A page too small for the record got a record page of its own behind it;
  // allocation rules are the same as for any block.
  *arena = bootstrap;
  return arena;
}

dympage_page* dympage_init(dympage* arena) { return dympage_init2(arena, DYMPAGE_DEFAULT_PAGE_SIZE); }

dympage_page* dympage_init2(dympage* arena, uint64_t page_size) {
  arena->page_size = page_size;
  arena->current = make_page_or_die(nullptr, page_size);
  return arena->current;
}

void* dympage_alloc(dympage* arena, uint64_t size, uint64_t alignment) {
  return allocate(arena, size, alignment, false);
}

void* dympage_try_alloc(dympage* arena, uint64_t size, uint64_t alignment) {
  return allocate(arena, size, alignment, true);
}

void dympage_destroy(dympage* arena) {
  // The record may live in one of the pages: read everything before freeing.
  dympage_page* page = arena->current;
  while (page != nullptr) {
    dympage_page* previous = page->previous;
    free(page);
    page = previous;
  }
}

uint64_t dympage_usage(const dympage* arena) {
  uint64_t total = 0;
  for (const dympage_page* page = arena->current; page != nullptr; page = page->previous) {
    uint64_t data_size = static_cast<uint64_t>(page->cursor - reinterpret_cast<const uint8_t*>(page)) -
                         DYMPAGE_HEADER_SIZE + page->remaining;
    total += DYMPAGE_HEADER_SIZE + data_size;
  }
  return total;
}

uint64_t dympage_overhead(const dympage* arena) {
  uint64_t total = 0;
  for (const dympage_page* page = arena->current; page != nullptr; page = page->previous) total += page->remaining;
  return total;
}

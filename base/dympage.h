// The page arena: bump allocation from large pages, all freed at once. Every
// message tree lives in one arena, and an uploaded image is read into the
// request's arena as well, so single requests may be far larger than a page.
#pragma once

#include <cstdint>

struct dympage_page {
  dympage_page* previous;  // the page made before this one, null for the first
  uint8_t* cursor;  // first free byte of the data area
  uint64_t remaining;  // free bytes from cursor to the end of the data area
};

struct dympage {
  dympage_page* current;  // all allocation happens in the newest page
  uint64_t page_size;  // data size of a normal page
};

constexpr uint64_t DYMPAGE_DEFAULT_PAGE_SIZE = 10485760;  // 10 MiB
constexpr uint64_t DYMPAGE_HEADER_SIZE = sizeof(dympage_page);

// An arena whose record lives in its own first page; dympage_destroy frees it.
dympage* dympage_create();
dympage* dympage_create2(uint64_t page_size);
// For a record held by the caller; returns the first page.
dympage_page* dympage_init(dympage* arena);
dympage_page* dympage_init2(dympage* arena, uint64_t page_size);

// `size` zero-filled bytes at `alignment` (a power of two, at most 8 for
// requests larger than a page). Never returns null: an exhausted heap ends the
// process.
void* dympage_alloc(dympage* arena, uint64_t size, uint64_t alignment);
// The same, but returns null instead of ending the process when the heap
// refuses the page that the request needs. For caller-sized requests such as
// an uploaded image.
void* dympage_try_alloc(dympage* arena, uint64_t size, uint64_t alignment);

void dympage_destroy(dympage* arena);
// Bytes held from the heap by all pages, headers included.
uint64_t dympage_usage(const dympage* arena);
// Bytes of all pages not handed out.
uint64_t dympage_overhead(const dympage* arena);

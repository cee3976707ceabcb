// A pool of fixed-size slots with a free list. Slot 0 of every pool page
// holds the link to the page before it and is never handed out; freed slots
// are reused last-freed first.
#pragma once

#include <cstdint>

struct dympool {
  void* pages;  // newest pool page
  void* free_list;  // first free slot; each free slot links to the next
  uint64_t slot_size;  // at least 8
  uint64_t slots_per_page;  // at least 2, the link slot included
};

void dympool_init(dympool* pool, uint64_t slot_size, uint64_t slots_per_page);
// A zero-filled slot.
void* dympool_alloc(dympool* pool);
void dympool_free(dympool* pool, void* slot);
// Frees every pool page; the record's fields keep their values.
void dympool_destroy(dympool* pool);
uint64_t dympool_pages(const dympool* pool);
uint64_t dympool_overhead(const dympool* pool);  // slots on the free list

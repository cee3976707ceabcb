#include "base/dympool.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "base/runtime.h"

namespace {

void* link_of(void* slot) {
  void* next;
  memcpy(&next, slot, sizeof next);
  return next;
}

void set_link(void* slot, void* next) { memcpy(slot, &next, sizeof next); }

// Slot i of a fresh page links to slot i - 1, slot 1 to the old free list, and
// the last slot becomes the head: a fresh page hands out its slots from the
// highest index down.
void add_page(dympool* pool) {
  auto* page = static_cast<uint8_t*>(runtime_malloc(pool->slots_per_page * pool->slot_size));
  set_link(page, pool->pages);
  pool->pages = page;
  void* previous = pool->free_list;
  for (uint64_t i = 1; i < pool->slots_per_page; ++i) {
    uint8_t* slot = page + i * pool->slot_size;
    set_link(slot, previous);
    previous = slot;
  }
  pool->free_list = previous;
}

}  // namespace

void dympool_init(dympool* pool, uint64_t slot_size, uint64_t slots_per_page) {
  assert(slot_size >= 8 && slots_per_page >= 2);
  pool->pages = nullptr;
  pool->free_list = nullptr;
  pool->slot_size = slot_size;
  pool->slots_per_page = slots_per_page;
}

void* dympool_alloc(dympool* pool) {
  if (pool->free_list == nullptr) add_page(pool);
  void* slot = pool->free_list;
  pool->free_list = link_of(slot);
  memset(slot, 0, pool->slot_size);
  return slot;
}

void dympool_free(dympool* pool, void* slot) {
  set_link(slot, pool->free_list);
  pool->free_list = slot;
}

void dympool_destroy(dympool* pool) {
  void* page = pool->pages;
  while (page != nullptr) {
    void* previous = link_of(page);
    free(page);
    page = previous;
  }
}

uint64_t dympool_pages(const dympool* pool) {
  uint64_t count = 0;
  for (void* page = pool->pages; page != nullptr; page = link_of(page)) ++count;
  return count;
}

uint64_t dympool_overhead(const dympool* pool) {
  uint64_t count = 0;
  for (void* slot = pool->free_list; slot != nullptr; slot = link_of(slot)) ++count;
  return count;
}

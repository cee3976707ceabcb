#include "base/sockpoll.h"

#include <cstdlib>

#include "base/runtime.h"

sockpoll* sockpoll_create() { return static_cast<sockpoll*>(runtime_zalloc(sizeof(sockpoll))); }

void sockpoll_destroy(sockpoll* set) {
  if (set == nullptr) return;
  free(set->entries);
  free(set);
}

void sockpoll_attach(sockpoll* set, socket_record* sock) {
  uint64_t slot = 0;
  for (; slot < set->count; ++slot) {
    if (set->entries[slot].fd == -1) break;
    if (set->entries[slot].fd == sock->descriptor) return;
  }
  if (slot == set->count) {
    set->entries = static_cast<pollfd*>(
        runtime_realloc(set->entries, (set->count + 1) * sizeof(pollfd)));
    ++set->count;
  }
  set->entries[slot] = pollfd{sock->descriptor, POLLIN, 0};
  sock->poll_slot = slot;
}

void sockpoll_detach(sockpoll* set, socket_record* sock) {
  if (sock->poll_slot >= set->count) return;
  set->entries[sock->poll_slot].fd = -1;
  set->entries[sock->poll_slot].revents = 0;
}

int64_t sockpoll_wait(sockpoll* set, int32_t timeout_ms) {
  int ready = poll(set->entries, static_cast<nfds_t>(set->count), timeout_ms);
  return ready < 0 ? 0 : ready;
}

int sockpoll_can_read(const sockpoll* set, const socket_record* sock) {
  if (sock->poll_slot >= set->count) return -1;
  return (set->entries[sock->poll_slot].revents & (POLLIN | POLLERR)) != 0 ? 1 : 0;
}

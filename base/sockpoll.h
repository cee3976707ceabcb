// Waiting for input on a set of sockets. Each attached socket remembers its
// entry (`poll_slot`), so asking about it after a wait costs no search.
#pragma once

#include <cstdint>
#include <poll.h>

#include "base/socket.h"

// Invariants: `count` never shrinks; an entry whose descriptor is -1 is a
// free slot that poll skips; every attached entry asks for POLLIN only.
struct sockpoll {
  pollfd* entries;  // null while empty
  uint64_t count;  // entries in the array, free slots included
};

// A new empty set; free it with sockpoll_destroy.
sockpoll* sockpoll_create();
// Frees the entries and the record; the sockets stay open and keep their
// `poll_slot`.
void sockpoll_destroy(sockpoll* set);
// Puts the socket into the first free slot, or a new one at the end, and
// writes the slot into its `poll_slot`. Does nothing when the scan meets the
// socket's descriptor before a free slot; callers attach a socket once.
void sockpoll_attach(sockpoll* set, socket_record* sock);
// Frees the socket's slot; detach before closing an attached socket, or the
// next wait reports the stale descriptor.
void sockpoll_detach(sockpoll* set, socket_record* sock);
// One poll over all entries; negative timeout waits without limit. Returns
// the number of entries with events, or 0 on timeout and on any failure of
// poll (an interrupting signal included), so a caller simply loops again.
int64_t sockpoll_wait(sockpoll* set, int32_t timeout_ms);
// After a wait: 1 when the socket's entry saw POLLIN or POLLERR, 0 when not,
// -1 when the socket was never attached to a set this large.
int sockpoll_can_read(const sockpoll* set, const socket_record* sock);

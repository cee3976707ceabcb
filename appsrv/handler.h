// Serving one management connection: one request in, then one reply or a
// hand-over of the connection to a stack.
#pragma once

#include <cstdint>

#include "base/dympage.h"
#include "base/socket.h"

// How long one client may take. The daemon serves one connection at a time,
// so these bound how long a slow or silent client holds every other client
// and the supervision of every stack.
struct appsrv_limits {
  int64_t request_ms;  // the whole request frame, counted from the accept
  int64_t silence_ms;  // any one receive of an image that brings nothing
  int64_t window_ms;  // every window this long of an image must bring...
  uint64_t window_bytes;  // ...this many bytes, or the rest of the image
};

// 30 s, 30 s, 60 s and 1 MiB. Read at every receive; only tests change them.
extern appsrv_limits appsrv_receive_limits;

// An uploaded image passes through one buffer of this size, allocated once;
// each filling goes to the staged store as one piece.
constexpr uint64_t appsrv_image_chunk = uint64_t{1} << 20;

// Reads one request from `connection`, a TCP connection accepted just now,
// and carries it out. Borrows the connection (the caller closes it) and
// allocates into the two fresh arenas (the caller destroys them). Never throws.
void handle_request(socket_record* connection, dympage* request_arena, dympage* reply_arena);

// Sends one failure reply carrying `reason`.
void reply_failure(socket_record* connection, dympage* reply_arena, const char* reason);

// Uploads: the image goes from the connection through one fixed buffer into
// a staged store, digested on the way, so an upload costs the daemon disk
// space and the buffer, never memory the size of the image. The whole image
// is received before the name is looked at, so a client's transfer always
// completes before it is told why its upload failed.
#include <algorithm>
#include <sys/socket.h>

#include "appsrv/status.h"
#include "appsrv/upload.h"
#include "base/runtime.h"
#include "protocol/management.h"
#include "stackman/stackman.h"

namespace {

// How long a refused upload may go on arriving before the connection closes.
constexpr int64_t kRefusalLingerMilliseconds = 1000;

// Allocated once for the daemon's life; its pages are taken only as the
// first large image fills them.
alignas(4096) uint8_t chunk[appsrv_image_chunk];

// The pace an image must keep: each window must bring what is due in it (the
// window's bytes, or the rest of the image), and no receive may wait longer
// than the silence limit. A window starts anew as soon as its due is in, so a
// client that keeps the pace is never cut off, however long its image.
struct image_pace {
  int64_t window_end;
  uint64_t due;  // bytes still owed in this window
  int64_t timeout;  // the receive time-out set on the connection now, -1 none yet
};

void start_window(image_pace* pace, uint64_t left) {
  pace->window_end = runtime_getclock() + appsrv_receive_limits.window_ms;
  pace->due = std::min(appsrv_receive_limits.window_bytes, left);
}

// Bounds the next receive by the silence limit or the end of the window,
// whichever comes first. False once the window is over.
bool bound_receive(socket_record* connection, image_pace* pace) {
  int64_t left = pace->window_end - runtime_getclock();
  if (left <= 0) return false;
  int64_t timeout = std::min(left, appsrv_receive_limits.silence_ms);
  if (timeout != pace->timeout) set_receive_timeout(connection, timeout);
  pace->timeout = timeout;
  return true;
}

// Reads exactly `size` image bytes, handing each filling of the buffer to the
// staged image. False when the connection fails or ends, falls silent, or
// falls behind its pace.
bool receive_image(socket_record* connection, stackman_image* image, uint64_t size) {
  image_pace pace{0, 0, -1};
  start_window(&pace, size);
  for (uint64_t left = size; left > 0;) {
    uint64_t want = std::min(left, appsrv_image_chunk);
    uint64_t fill = 0;
    while (fill < want) {
      if (!bound_receive(connection, &pace)) return false;
      uint64_t got = want - fill;
      if (socket_raw_recv(connection, chunk + fill, &got) != 0 || got == 0) return false;
      fill += got;
      if (got < pace.due) {
        pace.due -= got;
      } else {
        start_window(&pace, left - fill);
      }
    }
    stackman_image_write(image, chunk, fill);
    left -= fill;
  }
  return true;
}

// The refused image may still be on its way: stop sending, give the client a
// moment to take the reply, and drop what arrives, so that closing with
// unread data does not reset the connection before the reply is read.
void refuse_image(socket_record* connection, dympage* reply_arena, const char* reason) {
  reply_failure(connection, reply_arena, reason);
  if (!socket_is_alive(connection)) return;
  shutdown(connection->descriptor, SHUT_WR);
  set_receive_timeout(connection, kRefusalLingerMilliseconds);
  int64_t deadline = runtime_getclock() + kRefusalLingerMilliseconds;
  char discard[4096];
  while (runtime_getclock() < deadline && socket_is_alive(connection)) {
    uint64_t size = sizeof discard;
    if (socket_raw_recv(connection, discard, &size) != 0) break;
  }
}

const char* name_refusal(const char* name) {
  if (stackman_validate_name(name) != 0) return MANAGEMENT_INVALID_NAME;
  if (stackman_get(name) != nullptr) return MANAGEMENT_DUPLICATE_NAME;
  return nullptr;
}

}  // namespace

void handle_upload(socket_record* connection, dympage* reply_arena, const upload_request* upload) {
  // An unset size (0 or negative on the wire) reads as an empty image.
  uint64_t size = upload->image_size.set ? static_cast<uint64_t>(upload->image_size.value) : 0;
  // Refused before a byte of it is read: the disk could not take it.
  if (size > stackman_image_room()) return refuse_image(connection, reply_arena, MANAGEMENT_IMAGE_TOO_LARGE);
  const char* name = text_of(upload->stack_name);
  stackman_image image;
  stackman_image_begin(&image, name);
  if (!receive_image(connection, &image, size)) {
    stackman_image_discard(&image);
    return refuse_image(connection, reply_arena, MANAGEMENT_IMAGE_NOT_LOADED);
  }
  ++appsrv_counted.uploads;
  if (const char* refusal = name_refusal(name)) {
    stackman_image_discard(&image);
    return reply_failure(connection, reply_arena, refusal);
  }
  set_receive_timeout(connection, 0);
  if (stackman_stack_allocate(name, &image, connection) == nullptr)
    reply_failure(connection, reply_arena, stackman_strerror());
}

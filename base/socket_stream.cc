// Byte streams over a connected stream socket: the chunked reader and writer,
// the zero-terminated writer, and the chunked relay.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "base/bigendian.h"
#include "base/runtime.h"
#include "base/socket.h"

namespace {

constexpr uint64_t header_size = 4;

// Relays move a chunk through here piece by piece, so no relay holds more
// than this much of a chunk however long it is.
uint8_t relay_buffer[4096];

int fail(socket_record* sock, int error) {
  sock->error = strerror(error);
  return -1;
}

// Waits for exactly `count` bytes. A peer that closes first leaves the
// socket closed with ENOTCONN.
int receive_exact(socket_record* sock, void* buffer, uint64_t count) {
  if (sock->descriptor < 0) return fail(sock, EINVAL);
  auto* bytes = static_cast<uint8_t*>(buffer);
  uint64_t done = 0;
  while (done < count) {
    ssize_t got = recv(sock->descriptor, bytes + done, count - done, 0);
    if (got < 0) return fail(sock, errno);
    if (got == 0) {
      close(sock->descriptor);
      sock->descriptor = -1;
      return fail(sock, ENOTCONN);
    }
    done += static_cast<uint64_t>(got);
  }
  return 0;
}

int send_exact(socket_record* sock, const void* buffer, uint64_t count) {
  if (sock->descriptor < 0) return fail(sock, EINVAL);
  const auto* bytes = static_cast<const uint8_t*>(buffer);
  uint64_t done = 0;
  while (done < count) {
    ssize_t sent = send(sock->descriptor, bytes + done, count - done, 0);
    if (sent < 0) return fail(sock, errno);
    done += static_cast<uint64_t>(sent);
  }
  return 0;
}

void encode_header(uint8_t* out, uint32_t length) { bigendian_store32(out, length); }

int receive_header(socket_record* sock, uint32_t* length) {
  uint8_t word[4];
  if (receive_exact(sock, word, sizeof word) != 0) return -1;
  *length = bigendian_load32(word);
  return 0;
}

// ---- chunked reader

istream_chunked* reader_of(istream* stream) { return reinterpret_cast<istream_chunked*>(stream); }

void drop_chunk(istream_chunked* reader) {
  free(reader->chunk);
  reader->chunk = nullptr;
  reader->chunk_length = 0;
  reader->chunk_position = 0;
}

// Fetches the next chunk, or notes the end marker. -1 when the socket failed.
int next_chunk(istream_chunked* reader) {
  uint32_t length;
  if (receive_header(reader->sock, &length) != 0) return -1;
  if (length == 0) {
    reader->ended = 1;
    return 0;
  }
  reader->chunk = static_cast<uint8_t*>(runtime_malloc(length));
  reader->chunk_length = length;
  reader->chunk_position = 0;
  if (receive_exact(reader->sock, reader->chunk, length) != 0) {
    drop_chunk(reader);
    return -1;
  }
  return 0;
}

uint64_t chunked_read(istream* stream, void* destination, uint64_t count) {
  istream_chunked* reader = reader_of(stream);
  auto* out = static_cast<uint8_t*>(destination);
  uint64_t copied = 0;
  while (copied < count && reader->ended == 0) {
    if (reader->chunk == nullptr) {
      if (next_chunk(reader) != 0) break;
      continue;
    }
    uint64_t left = reader->chunk_length - reader->chunk_position;
    uint64_t taken = count - copied < left ? count - copied : left;
    memcpy(out + copied, reader->chunk + reader->chunk_position, taken);
    copied += taken;
    reader->chunk_position += taken;
    if (reader->chunk_position == reader->chunk_length) drop_chunk(reader);
  }
  return copied;
}

// Unread chunks stay in the socket; nothing is said to the peer.
void chunked_destroy(istream* stream) {
  istream_chunked* reader = reader_of(stream);
  reader->sock->chunked_in = nullptr;
  drop_chunk(reader);
}

// ---- writers

ostream_socket* writer_of(ostream* stream) { return reinterpret_cast<ostream_socket*>(stream); }

int flush_staging(ostream_socket* writer) {
  if (send_exact(writer->sock, writer->staging, writer->fill) != 0) return -1;
  writer->fill = 0;
  return 0;
}

// Copies into `staging`, sending each time it fills. Returns the bytes taken
// into `staging`; `*failed` tells whether a send failed on the way.
uint64_t stage(ostream_socket* writer, const uint8_t* source, uint64_t count, bool* failed) {
  uint64_t taken = 0;
  *failed = false;
  while (taken < count) {
    uint64_t room = sizeof writer->staging - writer->fill;
    uint64_t piece = count - taken < room ? count - taken : room;
    memcpy(writer->staging + writer->fill, source + taken, piece);
    writer->fill += piece;
    taken += piece;
    if (writer->fill == sizeof writer->staging && flush_staging(writer) != 0) {
      *failed = true;
      return taken;
    }
  }
  return taken;
}

uint64_t chunked_write(ostream* stream, const void* source, uint64_t count) {
  ostream_socket* writer = writer_of(stream);
  if (count == 0) return 0;  // an empty chunk would read as the end marker
  if (count > UINT32_MAX) return 0;  // not expressible in one chunk header
  if (sizeof writer->staging - writer->fill < header_size && flush_staging(writer) != 0) return 0;
  encode_header(writer->staging + writer->fill, static_cast<uint32_t>(count));
  writer->fill += header_size;
  bool failed;
  stage(writer, static_cast<const uint8_t*>(source), count, &failed);
  return failed ? 0 : count;
}

uint64_t chunked_finalize(ostream* stream) {
  ostream_socket* writer = writer_of(stream);
  writer->sock->chunked_out = nullptr;
  static constexpr uint8_t end_marker[header_size] = {0, 0, 0, 0};
  if (flush_staging(writer) != 0) return 0;
  send_exact(writer->sock, end_marker, sizeof end_marker);
  return 0;
}

uint64_t zeroterm_write(ostream* stream, const void* source, uint64_t count) {
  if (count == 0) return 0;
  bool failed;
  return stage(writer_of(stream), static_cast<const uint8_t*>(source), count, &failed);
}

uint64_t zeroterm_finalize(ostream* stream) {
  ostream_socket* writer = writer_of(stream);
  writer->sock->chunked_out = nullptr;
  static constexpr uint8_t terminator = 0;
  if (flush_staging(writer) != 0) return 0;
  send_exact(writer->sock, &terminator, sizeof terminator);
  return 0;
}

ostream* make_writer(socket_record* sock, ostream_write_fn write, ostream_finalize_fn finalize) {
  if (sock->chunked_out != nullptr) return nullptr;
  auto* writer = static_cast<ostream_socket*>(runtime_zalloc(sizeof(ostream_socket)));
  writer->base.write_len = write;
  writer->base.finalize = finalize;
  writer->sock = sock;
  sock->chunked_out = &writer->base;
  return &writer->base;
}

}  // namespace

istream* socket_istream_chunked(socket_record* sock) {
  if (sock->chunked_in != nullptr) return nullptr;
  auto* reader = static_cast<istream_chunked*>(runtime_zalloc(sizeof(istream_chunked)));
  reader->base.read_len = chunked_read;
  reader->base.destroy = chunked_destroy;
  reader->sock = sock;
  if (next_chunk(reader) != 0) {
    free(reader);
    return nullptr;
  }
  sock->chunked_in = &reader->base;
  return &reader->base;
}

ostream* socket_ostream_chunked(socket_record* sock) {
  return make_writer(sock, chunked_write, chunked_finalize);
}

ostream* socket_ostream_zeroterm(socket_record* sock) {
  return make_writer(sock, zeroterm_write, zeroterm_finalize);
}

int socket_stream_attach_chunked(socket_record* source, socket_record* destination) {
  for (;;) {
    uint32_t length;
    if (receive_header(source, &length) != 0) return -1;
    uint8_t header[header_size];
    encode_header(header, length);
    if (send_exact(destination, header, sizeof header) != 0) return -1;
    if (length == 0) return 0;
    uint64_t left = length;
    while (left > 0) {
      uint64_t piece = left < sizeof relay_buffer ? left : sizeof relay_buffer;
      if (receive_exact(source, relay_buffer, piece) != 0) return -1;
      if (send_exact(destination, relay_buffer, piece) != 0) return -1;
      left -= piece;
    }
  }
}

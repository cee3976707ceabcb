// Sockets for the whole system: addresses, opening, adopting, accepting,
// whole messages with a small frame and one passed descriptor, raw transfers,
// and byte streams over connected stream sockets.
//
// Frame on a stream socket: a 4-byte big-endian length N (1..65535) and then
// N payload bytes. On a datagram socket one datagram is one message, payload
// only. All sockets are blocking and every descriptor this family creates or
// takes over is close-on-exec; nothing is retried on EINTR. The family needs
// SIGPIPE ignored (runtime_startup) so that a vanished peer gives EPIPE.
//
// Results are 0 or -1. The reason of a failure is a static platform text: the
// socket record's `error`, or the family error for the operations that have
// no record to put it in (addresses, socket_open, socket_load). Read both
// with socket_strerror.
//
// Not reentrant: the receive buffer and the peer-name buffer are shared by
// the whole process.
#pragma once

#include <cstdint>

#include "base/istream.h"
#include "base/ostream.h"

// A platform socket address (sockaddr_un, sockaddr_in or sockaddr_in6); its
// first two bytes are the address family.
struct socket_address {
  uint64_t length;  // bytes of `storage` in use
  uint8_t storage[1024];
};

struct socket_record {
  uint32_t family;  // AF_UNIX, AF_INET, AF_INET6
  uint32_t type;  // SOCK_STREAM, SOCK_DGRAM (socket_load may adopt others)
  const char* error;  // last failure of this socket; never freed
  int32_t descriptor;  // -1 once closed or found dead
  uint64_t poll_slot;  // entry in a poll set, all ones while never attached
  istream* chunked_in;  // the chunked input stream on this socket, or null
  ostream* chunked_out;  // the output stream on this socket, or null
};

// For sending: the caller's bytes. After a receive: the family's receive
// buffer, valid only until the next framed receive of any socket.
struct socket_message {
  const void* data;
  uint64_t size;
};

// Largest payload of one message, framed or datagram.
constexpr uint64_t socket_message_max = 65535;

// Unix-domain address of a file-system path (no abstract namespace). Fails
// with ENAMETOOLONG when the path has 108 bytes or more.
int socket_address_unix(const char* path, socket_address* address);
// First address getaddrinfo gives for a numeric host and a port or service
// name; failures carry the gai_strerror text.
int socket_address_tcp(const char* host, const char* service, socket_address* address);
int socket_address_udp(const char* host, const char* service, socket_address* address);

// The record's last error, or the family error when `sock` is null.
const char* socket_strerror(const socket_record* sock);

// backlog 0, stream: connected stream socket (client).
// backlog B, not stream: datagram socket bound to the address.
// backlog B, stream: stream socket bound and listening with backlog B.
// backlog 0, not stream: fails with EINVAL.
// Binding to a unix path first removes whatever non-directory is there, so a
// socket file left by an earlier run never blocks the bind.
int socket_open(const socket_address* address, uint32_t backlog, int stream, socket_record* sock);
// Adopts an inherited socket descriptor: makes it blocking and close-on-exec.
// Fails with ENOTSOCK when the descriptor is not a socket.
int socket_load(int descriptor, socket_record* sock);
// Fills `copy` with a close-on-exec duplicate (descriptor -1 when dup fails).
void socket_dup(const socket_record* sock, socket_record* copy);
// Closes a descriptor above 0 and marks the record closed; a record with
// descriptor 0 or below is left as it is. Does not detach from a poll set.
void socket_close(socket_record* sock);
// Accepts one connection. A non-zero `close_listener` closes the listening
// socket afterwards (one-shot listener). Failures go to the listener's error.
int socket_accept(socket_record* listener, int close_listener, socket_record* connection);
// 1 while the record holds a descriptor, else 0.
int socket_is_alive(const socket_record* sock);
// Non-zero `inherit`: the next child started inherits this descriptor.
// Zero: close-on-exec again. Callers clear it only around one child's start.
int socket_inherit(socket_record* sock, int inherit);
// The IPv4 or IPv6 peer as "address:port", in a family buffer valid until
// the next call; null on failure.
const char* socket_peername(socket_record* sock);

// Sends one message of 1..65535 bytes with a single sendmsg. A datagram
// socket needs a destination of its own family; other sockets ignore it.
// When `passed` is given its descriptor travels along (SCM_RIGHTS); the
// sender keeps its own copy.
int socket_msg_send_dup(socket_record* sock, const socket_address* destination,
                        const socket_message* message, const socket_record* passed);
int socket_msg_send(socket_record* sock, const socket_address* destination,
                    const socket_message* message);

// Receives one message into the family's receive buffer (see socket_message).
// On a datagram socket a non-null `source` gets the sender's address.
// The end of a stream is a success with data null and size 0, after which the
// socket is closed (socket_is_alive gives 0). A length word above 65535 fails
// with EMSGSIZE without reading the payload; a stream that ends inside a
// length word fails with EIO. After either the stream is out of step and the
// caller closes it.
// `received` and `passed` are given together or both null. When a descriptor
// came with the message, `passed` is filled with a new close-on-exec record
// that the caller owns and `*received` is 0; when none came `*received` is -1.
// On a stream socket a descriptor may arrive with the length word or with the
// payload; either is kept. `*received` is left untouched when the stream
// ended before a length word, and on failure any arrived descriptor is closed.
int socket_msg_recv_dup(socket_record* sock, socket_address* source, socket_message* message,
                        int* received, socket_record* passed);
int socket_msg_recv(socket_record* sock, socket_address* source, socket_message* message);

// One recv/recvfrom of at most *size bytes, no framing; *size becomes the
// count received. Receiving 0 bytes closes the socket (on any socket type).
int socket_raw_recv(socket_record* sock, void* buffer, uint64_t* size);
int socket_raw_recvfrom(socket_record* sock, socket_address* source, void* buffer,
                        uint64_t* size);
// One send/sendto of *size bytes; *size becomes the count sent, possibly less.
int socket_raw_send(socket_record* sock, const void* buffer, uint64_t* size);
int socket_raw_sendto(socket_record* sock, const socket_address* destination,
                      const void* buffer, uint64_t* size);

// Byte streams on a connected stream socket. A chunked stream is a run of
// chunks, each a 4-byte big-endian length L and L bytes, ended by a chunk of
// length 0. A zero-terminated stream is the bytes followed by one zero byte.
// A socket carries at most one input and one output stream at a time; the
// streams do not own the socket, which is closed after they are destroyed.
// Failures show as short counts, with the reason in the socket's `error`.

// The chunked reader's record: an istream kind.
struct istream_chunked {
  istream base;
  socket_record* sock;
  uint8_t* chunk;  // heap copy of the current chunk, null between chunks
  uint64_t chunk_length;
  uint64_t chunk_position;  // bytes of the chunk already handed out
  uint32_t ended;  // the end marker has been read; every read gives 0
};

// The record of both socket writers (chunked and zero-terminated): an
// ostream kind. Small writes are coalesced into sends of up to 4096 bytes.
struct ostream_socket {
  ostream base;
  socket_record* sock;
  uint8_t staging[4096];
  uint64_t fill;  // bytes waiting in `staging`
};

// A new chunked input stream, after its first chunk has arrived; null when
// the socket already has one or the first chunk cannot be received.
// Release with istream_destroy, which leaves unread chunks in the socket.
istream* socket_istream_chunked(socket_record* sock);
// New output streams; null when the socket already has an output stream.
// ostream_destroy sends what is staged and ends the stream on the wire (end
// marker, or the zero byte).
ostream* socket_ostream_chunked(socket_record* sock);
ostream* socket_ostream_zeroterm(socket_record* sock);
// Copies one chunked stream, end marker included, from `source` to
// `destination` unchanged, holding at most 4096 bytes at a time. 0 after the
// end marker went out; -1 with the failing socket's error.
int socket_stream_attach_chunked(socket_record* source, socket_record* destination);

// Socket addresses, opening and adopting sockets, and whole messages with the
// 4-byte frame and one passed descriptor.
#include "base/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/bigendian.h"

namespace {

const char* family_error = "";

// Framed receives land here; a message stays valid until the next one.
uint8_t receive_buffer[socket_message_max + 1];

char peer_address[INET6_ADDRSTRLEN];
char peer_text[56];

constexpr uint64_t unix_path_room = sizeof(sockaddr_un::sun_path);

// Room for exactly one passed descriptor, aligned for cmsghdr.
union control_buffer {
  cmsghdr header;
  uint8_t bytes[CMSG_SPACE(sizeof(int))];
};

int fail_family(int error) {
  family_error = strerror(error);
  return -1;
}

int fail(socket_record* sock, int error) {
  sock->error = strerror(error);
  return -1;
}

const char* fail_peer(socket_record* sock, int error) {
  fail(sock, error);
  return nullptr;
}

void fill(socket_record* sock, uint32_t family, uint32_t type, int descriptor) {
  sock->family = family;
  sock->type = type;
  sock->descriptor = descriptor;
  sock->poll_slot = UINT64_MAX;
  sock->chunked_in = nullptr;
  sock->chunked_out = nullptr;
}

int set_cloexec(int descriptor, bool on) {
  int flags = fcntl(descriptor, F_GETFD);
  if (flags < 0) return -1;
  flags = on ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC);
  return fcntl(descriptor, F_SETFD, flags);
}

uint16_t address_family(const socket_address* address) {
  uint16_t family;
  memcpy(&family, address->storage, sizeof family);
  return family;
}

// Family and type of a socket descriptor; failures leave the zeros.
void describe(int descriptor, uint32_t* family, uint32_t* type) {
  sockaddr_storage name{};
  socklen_t name_length = sizeof name;
  getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &name_length);
  int kind = 0;
  socklen_t kind_length = sizeof kind;
  getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &kind, &kind_length);
  *family = name.ss_family;
  *type = static_cast<uint32_t>(kind);
}

int resolve(const char* host, const char* service, int type, socket_address* address) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = type;
  addrinfo* results = nullptr;
  int code = getaddrinfo(host, service, &hints, &results);
  if (code != 0) {
    family_error = gai_strerror(code);
    return -1;
  }
  memset(address->storage, 0, sizeof address->storage);
  memcpy(address->storage, results->ai_addr, results->ai_addrlen);
  address->length = results->ai_addrlen;
  freeaddrinfo(results);
  return 0;
}

// The descriptor of the first SCM_RIGHTS message, or -1. The kernel has
// already made it close-on-exec (MSG_CMSG_CLOEXEC) and closed any that did
// not fit the buffer.
int take_descriptor(msghdr* header) {
  for (cmsghdr* control = CMSG_FIRSTHDR(header); control != nullptr;
       control = CMSG_NXTHDR(header, control)) {
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) continue;
    if (control->cmsg_len < CMSG_LEN(sizeof(int))) continue;
    int descriptor;
    memcpy(&descriptor, CMSG_DATA(control), sizeof descriptor);
    return descriptor;
  }
  return -1;
}

// One recvmsg into `buffer`; a descriptor that arrives is stored in
// `*arrived` unless one is already there, in which case it is closed.
ssize_t receive(int descriptor, void* buffer, size_t size, int flags, sockaddr* name,
                socklen_t* name_length, int* arrived) {
  iovec vector{buffer, size};
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  if (name != nullptr) {
    header.msg_name = name;
    header.msg_namelen = *name_length;
  }
  control_buffer control{};
  if (arrived != nullptr) {
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof control.bytes;
  }
  ssize_t result = recvmsg(descriptor, &header, flags | MSG_CMSG_CLOEXEC);
  if (result < 0) return result;
  if (name != nullptr) *name_length = header.msg_namelen;
  if (arrived != nullptr) {
    int passed = take_descriptor(&header);
    if (passed >= 0 && *arrived >= 0) {
      close(passed);
    } else if (passed >= 0) {
      *arrived = passed;
    }
  }
  return result;
}

// Failure path of a receive: a descriptor that came along must not leak.
int fail_receive(socket_record* sock, int error, int arrived) {
  if (arrived >= 0) close(arrived);
  return fail(sock, error);
}

void close_dead(socket_record* sock) {
  close(sock->descriptor);
  sock->descriptor = -1;
}

}  // namespace

int socket_address_unix(const char* path, socket_address* address) {
  memset(address->storage, 0, sizeof(sockaddr_un));
  auto* name = reinterpret_cast<sockaddr_un*>(address->storage);
  name->sun_family = AF_UNIX;
  size_t length = strlen(path);
  if (length >= unix_path_room) return fail_family(ENAMETOOLONG);
  memcpy(name->sun_path, path, length + 1);
  address->length = offsetof(sockaddr_un, sun_path) + length;
  return 0;
}

int socket_address_tcp(const char* host, const char* service, socket_address* address) {
  return resolve(host, service, SOCK_STREAM, address);
}

int socket_address_udp(const char* host, const char* service, socket_address* address) {
  return resolve(host, service, SOCK_DGRAM, address);
}

const char* socket_strerror(const socket_record* sock) {
  return sock == nullptr ? family_error : sock->error;
}

int socket_open(const socket_address* address, uint32_t backlog, int stream, socket_record* sock) {
  if (backlog == 0 && stream == 0) return fail_family(EINVAL);
  uint16_t family = address_family(address);
  int type = stream != 0 ? SOCK_STREAM : SOCK_DGRAM;
  int descriptor = socket(family, type | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return fail_family(errno);
  const auto* name = reinterpret_cast<const sockaddr*>(address->storage);
  auto length = static_cast<socklen_t>(address->length);
  int result;
  if (backlog != 0) {
    int yes = 1;
    result = setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (result == 0 && family == AF_UNIX) {
      unlink(reinterpret_cast<const sockaddr_un*>(name)->sun_path);
    }
    if (result == 0) result = bind(descriptor, name, length);
    if (result == 0 && stream != 0) result = listen(descriptor, static_cast<int>(backlog));
  } else {
    result = connect(descriptor, name, length);
  }
  if (result != 0) {
    int error = errno;
    close(descriptor);
    return fail_family(error);
  }
  fill(sock, family, static_cast<uint32_t>(type), descriptor);
  return 0;
}

int socket_load(int descriptor, socket_record* sock) {
  struct stat status{};
  if (fstat(descriptor, &status) != 0) return fail_family(errno);
  if (!S_ISSOCK(status.st_mode)) return fail_family(ENOTSOCK);
  uint32_t family;
  uint32_t type;
  describe(descriptor, &family, &type);
  fill(sock, family, type, descriptor);
  int flags = fcntl(descriptor, F_GETFL);
  if (flags >= 0) fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK);
  set_cloexec(descriptor, true);
  return 0;
}

void socket_dup(const socket_record* sock, socket_record* copy) {
  int descriptor = fcntl(sock->descriptor, F_DUPFD_CLOEXEC, 0);
  fill(copy, sock->family, sock->type, descriptor < 0 ? -1 : descriptor);
}

void socket_close(socket_record* sock) {
  // Descriptor 0 is standard input, never one of ours to close.
  if (sock->descriptor <= 0) return;
  close(sock->descriptor);
  sock->descriptor = -1;
}

int socket_accept(socket_record* listener, int close_listener, socket_record* connection) {
  if (listener->descriptor < 0) return fail(listener, EINVAL);
  int descriptor = accept4(listener->descriptor, nullptr, nullptr, SOCK_CLOEXEC);
  if (descriptor < 0) return fail(listener, errno);
  if (close_listener != 0) close_dead(listener);
  fill(connection, listener->family, listener->type, descriptor);
  return 0;
}

int socket_is_alive(const socket_record* sock) { return sock->descriptor >= 0 ? 1 : 0; }

int socket_inherit(socket_record* sock, int inherit) {
  if (sock->descriptor < 0) return fail(sock, EINVAL);
  if (set_cloexec(sock->descriptor, inherit == 0) != 0) return fail(sock, errno);
  return 0;
}

const char* socket_peername(socket_record* sock) {
  if (sock->descriptor < 0) return fail_peer(sock, EINVAL);
  sockaddr_storage name{};
  socklen_t length = sizeof name;
  if (getpeername(sock->descriptor, reinterpret_cast<sockaddr*>(&name), &length) != 0) {
    return fail_peer(sock, EINVAL);
  }
  const void* address;
  int port;
  socklen_t room;
  if (name.ss_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&name);
    address = &v4->sin_addr;
    port = ntohs(v4->sin_port);
    room = INET_ADDRSTRLEN;
  } else if (name.ss_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&name);
    address = &v6->sin6_addr;
    port = ntohs(v6->sin6_port);
    room = INET6_ADDRSTRLEN;
  } else {
    return fail_peer(sock, EINVAL);
  }
  if (inet_ntop(name.ss_family, address, peer_address, room) == nullptr) {
    return fail_peer(sock, errno);
  }
  snprintf(peer_text, sizeof peer_text, "%s:%d", peer_address, port);
  return peer_text;
}

int socket_msg_send_dup(socket_record* sock, const socket_address* destination,
                        const socket_message* message, const socket_record* passed) {
  if (sock->descriptor < 0) return fail(sock, EINVAL);
  if (message->size > socket_message_max) return fail(sock, EMSGSIZE);
  if (message->size == 0) return fail(sock, EINVAL);

  uint8_t word[4];
  bigendian_store32(word, static_cast<uint32_t>(message->size));
  iovec vector[2];
  int pieces = 0;
  if (sock->type == SOCK_STREAM) vector[pieces++] = {word, sizeof word};
  vector[pieces++] = {const_cast<void*>(message->data), message->size};

  msghdr header{};
  header.msg_iov = vector;
  header.msg_iovlen = static_cast<size_t>(pieces);

  control_buffer control{};
  if (passed != nullptr) {
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof control.bytes;
    cmsghdr* first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_RIGHTS;
    first->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(first), &passed->descriptor, sizeof(int));
  }

  if (sock->type == SOCK_DGRAM) {
    if (destination == nullptr) return fail(sock, EDESTADDRREQ);
    if (address_family(destination) != sock->family) return fail(sock, EPFNOSUPPORT);
    header.msg_name = const_cast<uint8_t*>(destination->storage);
    header.msg_namelen = static_cast<socklen_t>(destination->length);
  }

  if (sendmsg(sock->descriptor, &header, 0) < 0) return fail(sock, errno);
  return 0;
}

int socket_msg_send(socket_record* sock, const socket_address* destination,
                    const socket_message* message) {
  return socket_msg_send_dup(sock, destination, message, nullptr);
}

int socket_msg_recv_dup(socket_record* sock, socket_address* source, socket_message* message,
                        int* received, socket_record* passed) {
  if (sock->descriptor < 0) return fail(sock, EINVAL);
  bool stream = sock->type == SOCK_STREAM;
  int arrived = -1;
  int* want_descriptor = passed != nullptr ? &arrived : nullptr;

  uint64_t expected = socket_message_max;
  int flags = 0;
  if (stream) {
    // Room for a descriptor already here: a sender attaches it to the
    // sendmsg of the whole frame, so it comes with the frame's first bytes.
    uint8_t word[4];
    ssize_t got = receive(sock->descriptor, word, sizeof word, MSG_WAITALL, nullptr, nullptr,
                          want_descriptor);
    if (got < 0) return fail_receive(sock, errno, arrived);
    if (got == 0) {
      close_dead(sock);
      message->data = nullptr;
      message->size = 0;
      if (arrived >= 0) close(arrived);
      return 0;
    }
    if (got < 4) return fail_receive(sock, EIO, arrived);
    expected = bigendian_load32(word);
    // Refused before the payload is touched; the stream is out of step now.
    if (expected > socket_message_max) return fail_receive(sock, EMSGSIZE, arrived);
    flags = MSG_WAITALL;
  }

  message->data = receive_buffer;
  sockaddr* name = nullptr;
  socklen_t name_length = 0;
  if (source != nullptr && sock->type == SOCK_DGRAM) {
    name = reinterpret_cast<sockaddr*>(source->storage);
    name_length = sizeof source->storage;
  }
  ssize_t got = 0;
  // A length word of 0 is read as the end of the stream.
  if (expected != 0) {
    got = receive(sock->descriptor, receive_buffer, expected, flags, name, &name_length,
                  want_descriptor);
    if (got < 0) return fail_receive(sock, errno, arrived);
  }
  if (stream && got == 0) close_dead(sock);
  if (name != nullptr) source->length = name_length;
  message->size = static_cast<uint64_t>(got);

  if (passed != nullptr) {
    if (arrived < 0) {
      *received = -1;
    } else {
      uint32_t family;
      uint32_t type;
      describe(arrived, &family, &type);
      fill(passed, family, type, arrived);
      *received = 0;
    }
  }
  return 0;
}

int socket_msg_recv(socket_record* sock, socket_address* source, socket_message* message) {
  return socket_msg_recv_dup(sock, source, message, nullptr, nullptr);
}

int socket_raw_recvfrom(socket_record* sock, socket_address* source, void* buffer,
                        uint64_t* size) {
  if (sock->descriptor < 0) return fail(sock, EINVAL);
  ssize_t got;
  if (source != nullptr) {
    source->length = sizeof source->storage;
    auto length = static_cast<socklen_t>(source->length);
    got = recvfrom(sock->descriptor, buffer, *size, 0,
                   reinterpret_cast<sockaddr*>(source->storage), &length);
    if (got >= 0) source->length = length;
  } else {
    got = recv(sock->descriptor, buffer, *size, 0);
  }
  if (got < 0) return fail(sock, errno);
  if (got == 0) close_dead(sock);
  *size = static_cast<uint64_t>(got);
  return 0;
}

int socket_raw_recv(socket_record* sock, void* buffer, uint64_t* size) {
  return socket_raw_recvfrom(sock, nullptr, buffer, size);
}

int socket_raw_sendto(socket_record* sock, const socket_address* destination,
                      const void* buffer, uint64_t* size) {
  if (sock->descriptor < 0) return fail(sock, EINVAL);
  ssize_t sent;
  if (destination != nullptr) {
    sent = sendto(sock->descriptor, buffer, *size, 0,
                  reinterpret_cast<const sockaddr*>(destination->storage),
                  static_cast<socklen_t>(destination->length));
  } else {
    sent = send(sock->descriptor, buffer, *size, 0);
  }
  if (sent < 0) return fail(sock, errno);
  *size = static_cast<uint64_t>(sent);
  return 0;
}

int socket_raw_send(socket_record* sock, const void* buffer, uint64_t* size) {
  return socket_raw_sendto(sock, nullptr, buffer, size);
}

#include "base/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/runtime.h"

namespace {

// Sends to a vanished peer must fail with EPIPE, not end the test binary.
const runtime_sighandler previous_sigpipe = runtime_startup();

std::string text_of(int error) { return strerror(error); }
std::string text_of(const socket_message& message) {
  return std::string(static_cast<const char*>(message.data), message.size);
}
// The message borrows the bytes: literals, or strings that outlive it.
socket_message message_of(const char* text) { return {text, strlen(text)}; }
socket_message message_of(const std::string& bytes) { return {bytes.data(), bytes.size()}; }
socket_message message_of(std::string&& bytes) = delete;

bool is_cloexec(int descriptor) { return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0; }

int open_descriptors() {
  int count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

std::string local_port(const socket_record& sock) {
  sockaddr_in6 name{};  // the port sits at the same offset for both families
  socklen_t length = sizeof name;
  getsockname(sock.descriptor, reinterpret_cast<sockaddr*>(&name), &length);
  return std::to_string(ntohs(name.sin6_port));
}

// A scratch directory for unix socket paths, short enough for sun_path.
struct scratch_dir {
  std::string path;
  scratch_dir() {
    char name[] = "/tmp/appsrv-sock-XXXXXX";
    path = mkdtemp(name);
  }
  std::string file(const char* leaf) const { return path + "/" + leaf; }
  ~scratch_dir() { EXPECT_EQ(system(("rm -rf '" + path + "'").c_str()), 0); }
};

// A connected stream pair on a kernel-chosen loopback port, or on a unix path.
struct stream_pair {
  socket_record listener{}, client{}, server{};
  explicit stream_pair(const char* host = "127.0.0.1", const char* unix_path = nullptr) {
    socket_address address{};
    if (unix_path != nullptr) {
      EXPECT_EQ(socket_address_unix(unix_path, &address), 0);
    } else {
      EXPECT_EQ(socket_address_tcp(host, "0", &address), 0);
    }
    EXPECT_EQ(socket_open(&address, 1, 1, &listener), 0) << socket_strerror(nullptr);
    if (unix_path == nullptr) {
      EXPECT_EQ(socket_address_tcp(host, local_port(listener).c_str(), &address), 0);
    }
    EXPECT_EQ(socket_open(&address, 0, 1, &client), 0) << socket_strerror(nullptr);
    EXPECT_EQ(socket_accept(&listener, 0, &server), 0) << socket_strerror(&listener);
  }
  ~stream_pair() {
    for (socket_record* sock : {&server, &client, &listener}) socket_close(sock);
  }
};

// A bound unix datagram socket.
struct unix_datagram {
  socket_address address{};
  socket_record sock{};
  explicit unix_datagram(const std::string& path) {
    EXPECT_EQ(socket_address_unix(path.c_str(), &address), 0);
    EXPECT_EQ(socket_open(&address, 1, 0, &sock), 0) << socket_strerror(nullptr);
  }
  ~unix_datagram() { socket_close(&sock); }
};

std::string receive_exactly(socket_record* sock, size_t count) {
  std::string bytes(count, '\0');
  size_t done = 0;
  for (uint64_t size = count; done < count; done += size, size = count - done) {
    if (socket_raw_recv(sock, bytes.data() + done, &size) != 0 || size == 0) break;
  }
  bytes.resize(done);
  return bytes;
}

void send_raw(socket_record* sock, const std::string& bytes) {
  uint64_t size = bytes.size();
  ASSERT_EQ(socket_raw_send(sock, bytes.data(), &size), 0);
}

TEST(SocketAddress, UnixPathsUpTo107BytesAndNumericHostsOnly) {
  socket_address address{};
  std::string longest(107, 'p');
  ASSERT_EQ(socket_address_unix(longest.c_str(), &address), 0);
  EXPECT_EQ(address.length, 109u);
  EXPECT_EQ(reinterpret_cast<const sockaddr_un*>(address.storage)->sun_path, longest);
  EXPECT_EQ(socket_address_unix(std::string(108, 'p').c_str(), &address), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(ENAMETOOLONG));

  ASSERT_EQ(socket_address_tcp("127.0.0.1", "8080", &address), 0);
  EXPECT_EQ(address.length, sizeof(sockaddr_in));
  EXPECT_EQ(ntohs(reinterpret_cast<const sockaddr_in*>(address.storage)->sin_port), 8080);
  ASSERT_EQ(socket_address_udp("::1", "8080", &address), 0);
  EXPECT_EQ(address.length, sizeof(sockaddr_in6));
  EXPECT_EQ(socket_address_tcp("localhost", "8080", &address), -1);
  EXPECT_STREQ(socket_strerror(nullptr), gai_strerror(EAI_NONAME));
}

TEST(SocketOpen, FailuresGoToTheFamilyErrorWithNothingLeftOpen) {
  socket_address address{};
  socket_record sock{};
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
  EXPECT_EQ(socket_open(&address, 0, 0, &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(EINVAL));

  // A port that was just released has no listener: the connect is refused.
  socket_record listener{};
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  std::string port = local_port(listener);
  socket_close(&listener);
  ASSERT_EQ(socket_address_tcp("127.0.0.1", port.c_str(), &address), 0);
  int before = open_descriptors();
  EXPECT_EQ(socket_open(&address, 0, 1, &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(ECONNREFUSED));
  EXPECT_EQ(open_descriptors(), before);
}

TEST(SocketOpen, StaleFileAtAUnixPathDoesNotBlockTheBind) {
  scratch_dir dir;
  std::string path = dir.file("node");
  socket_address address{};
  ASSERT_EQ(socket_address_unix(path.c_str(), &address), 0);
  socket_record sock{};
  // A socket file an earlier run left behind, then a plain file in the way.
  for (const char* leftover : {"socket", "file"}) {
    if (std::string(leftover) == "file") {
      unlink(path.c_str());
      close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    }
    ASSERT_EQ(socket_open(&address, 1, 0, &sock), 0) << leftover << ": " << socket_strerror(nullptr);
    EXPECT_EQ(sock.family, static_cast<uint32_t>(AF_UNIX));
    socket_close(&sock);
  }
}

TEST(SocketRecord, EveryDescriptorIsCloseOnExecAndTheRecordFilled) {
  stream_pair pair;
  for (const socket_record* sock : {&pair.listener, &pair.client, &pair.server}) {
    EXPECT_EQ(sock->family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(sock->type, static_cast<uint32_t>(SOCK_STREAM));
    EXPECT_EQ(sock->poll_slot, UINT64_MAX);
    EXPECT_EQ(sock->chunked_in, nullptr);
    EXPECT_EQ(sock->chunked_out, nullptr);
    EXPECT_TRUE(is_cloexec(sock->descriptor));
  }
  ASSERT_EQ(socket_inherit(&pair.server, 1), 0);
  EXPECT_FALSE(is_cloexec(pair.server.descriptor));
  ASSERT_EQ(socket_inherit(&pair.server, 0), 0);
  EXPECT_TRUE(is_cloexec(pair.server.descriptor));

  // As a child would find an inherited descriptor: non-blocking, no cloexec.
  socket_record sock{}, copy{};
  int raw = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  ASSERT_EQ(socket_load(raw, &sock), 0);
  EXPECT_EQ(sock.descriptor, raw);
  EXPECT_EQ(sock.type, static_cast<uint32_t>(SOCK_DGRAM));
  EXPECT_EQ(sock.poll_slot, UINT64_MAX);
  EXPECT_EQ(fcntl(raw, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_TRUE(is_cloexec(raw));
  socket_dup(&sock, &copy);
  EXPECT_NE(copy.descriptor, sock.descriptor);
  EXPECT_EQ(copy.family, static_cast<uint32_t>(AF_UNIX));
  EXPECT_TRUE(is_cloexec(copy.descriptor));
  socket_close(&copy);
  socket_close(&sock);

  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  EXPECT_EQ(socket_load(ends[0], &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(ENOTSOCK));
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(socket_load(ends[0], &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(EBADF));
}

TEST(SocketFrame, PayloadGoesOutBehindABigEndianLengthOf1To65535) {
  stream_pair pair;
  socket_message message = message_of("hello"), received{};
  ASSERT_EQ(socket_msg_send(&pair.client, nullptr, &message), 0);
  EXPECT_EQ(receive_exactly(&pair.server, 9), std::string("\0\0\0\x05hello", 9));

  std::string largest(65535, 'x');
  largest.back() = 'y';
  message = message_of(largest);
  ASSERT_EQ(socket_msg_send(&pair.server, nullptr, &message), 0);
  ASSERT_EQ(socket_msg_recv(&pair.client, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), largest);

  // Refusals write nothing: the next frame on the wire is the one sent after.
  std::string too_large(65536, 'x');
  message = message_of(too_large);
  EXPECT_EQ(socket_msg_send(&pair.client, nullptr, &message), -1);
  EXPECT_EQ(socket_strerror(&pair.client), text_of(EMSGSIZE));
  message = {"", 0};
  EXPECT_EQ(socket_msg_send(&pair.client, nullptr, &message), -1);
  EXPECT_EQ(socket_strerror(&pair.client), text_of(EINVAL));
  message = message_of("next");
  ASSERT_EQ(socket_msg_send(&pair.client, nullptr, &message), 0);
  ASSERT_EQ(socket_msg_recv(&pair.server, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), "next");
}

TEST(SocketFrame, BrokenAndEndingStreams) {
  const struct { std::string wire; bool close; int result; int error; const char* left; } cases[] = {
      {"", true, 0, 0, ""},  // peer gone before a frame: an empty message, socket dead
      {std::string("\0\0\0\0", 4), false, 0, 0, ""},  // a zero length word ends the stream
      {std::string("\0\0", 2), true, -1, EIO, ""},  // the stream ends inside the length word
      {std::string("\0\x01\0\0ab", 6), false, -1, EMSGSIZE, "ab"},  // refused before the payload
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.wire.size() << " bytes on the wire");
    stream_pair pair;
    send_raw(&pair.client, c.wire);
    if (c.close) socket_close(&pair.client);
    socket_message received{"stale", 5};
    EXPECT_EQ(socket_msg_recv(&pair.server, nullptr, &received), c.result);
    if (c.result == 0) {
      EXPECT_EQ(received.size, 0u);
      EXPECT_TRUE(!c.close || received.data == nullptr);
      EXPECT_EQ(socket_is_alive(&pair.server), 0);
      EXPECT_EQ(pair.server.descriptor, -1);
    } else {
      EXPECT_EQ(socket_strerror(&pair.server), text_of(c.error));
      EXPECT_EQ(receive_exactly(&pair.server, strlen(c.left)), c.left);
    }
  }
}

TEST(SocketDatagram, OneDatagramIsOneMessageWithItsSource) {
  scratch_dir dir;
  unix_datagram node(dir.file("node")), worker(dir.file("worker"));
  socket_message message = message_of("set name"), received{};
  EXPECT_EQ(socket_msg_send(&node.sock, nullptr, &message), -1);
  EXPECT_EQ(socket_strerror(&node.sock), text_of(EDESTADDRREQ));
  socket_address inet{}, source{};
  ASSERT_EQ(socket_address_udp("127.0.0.1", "9", &inet), 0);
  EXPECT_EQ(socket_msg_send(&node.sock, &inet, &message), -1);
  EXPECT_EQ(socket_strerror(&node.sock), text_of(EPFNOSUPPORT));

  ASSERT_EQ(socket_msg_send(&node.sock, &worker.address, &message), 0);
  ASSERT_EQ(socket_msg_recv(&worker.sock, &source, &received), 0);
  EXPECT_EQ(text_of(received), "set name");  // no length word on a datagram
  EXPECT_STREQ(reinterpret_cast<const sockaddr_un*>(source.storage)->sun_path, dir.file("node").c_str());

  // A datagram longer than any message is cut to the largest message.
  std::string oversized(70000, 'd');
  uint64_t size = oversized.size();
  ASSERT_EQ(socket_raw_sendto(&node.sock, &worker.address, oversized.data(), &size), 0);
  ASSERT_EQ(socket_msg_recv(&worker.sock, nullptr, &received), 0);
  EXPECT_EQ(received.size, 65535u);
}

TEST(SocketPassing, DatagramCarriesOneCloseOnExecDescriptor) {
  scratch_dir dir;
  unix_datagram node(dir.file("node")), worker(dir.file("worker"));
  stream_pair connection;
  socket_message message = message_of("sockpass"), received{};
  ASSERT_EQ(socket_msg_send_dup(&node.sock, &worker.address, &message, &connection.server), 0);
  int flag = 7;
  socket_record passed{};
  ASSERT_EQ(socket_msg_recv_dup(&worker.sock, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(text_of(received), "sockpass");
  ASSERT_EQ(flag, 0);
  EXPECT_NE(passed.descriptor, connection.server.descriptor);
  EXPECT_TRUE(is_cloexec(passed.descriptor));
  EXPECT_EQ(passed.family, static_cast<uint32_t>(AF_INET));
  EXPECT_EQ(passed.type, static_cast<uint32_t>(SOCK_STREAM));
  EXPECT_EQ(passed.poll_slot, UINT64_MAX);

  // The passed record is the same connection: the client hears it.
  message = message_of("from the stack");
  ASSERT_EQ(socket_msg_send(&passed, nullptr, &message), 0);
  ASSERT_EQ(socket_msg_recv(&connection.client, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), "from the stack");
  socket_close(&passed);

  message = message_of("shutdown");
  ASSERT_EQ(socket_msg_send(&node.sock, &worker.address, &message), 0);
  ASSERT_EQ(socket_msg_recv_dup(&worker.sock, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(flag, -1);
}

TEST(SocketPassing, StreamFrameKeepsItsDescriptorAndUnwantedOnesAreClosed) {
  scratch_dir dir;
  stream_pair control(nullptr, dir.file("control").c_str());
  unix_datagram carried(dir.file("carried"));
  socket_message message = message_of("with descriptor"), received{};
  ASSERT_EQ(socket_msg_send_dup(&control.client, nullptr, &message, &carried.sock), 0);
  message = message_of("without");
  ASSERT_EQ(socket_msg_send(&control.client, nullptr, &message), 0);

  int flag = 7;
  socket_record passed{};
  ASSERT_EQ(socket_msg_recv_dup(&control.server, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(text_of(received), "with descriptor");
  ASSERT_EQ(flag, 0);
  EXPECT_EQ(passed.type, static_cast<uint32_t>(SOCK_DGRAM));
  EXPECT_TRUE(is_cloexec(passed.descriptor));
  socket_close(&passed);
  ASSERT_EQ(socket_msg_recv_dup(&control.server, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(text_of(received), "without");
  EXPECT_EQ(flag, -1);

  // A receiver that takes no descriptor must not be left holding one.
  int before = open_descriptors();
  message = message_of("unwanted");
  ASSERT_EQ(socket_msg_send_dup(&control.client, nullptr, &message, &carried.sock), 0);
  ASSERT_EQ(socket_msg_recv(&control.server, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), "unwanted");
  EXPECT_EQ(open_descriptors(), before);

  // Nor one that came with a frame it refused.
  uint8_t oversized[] = {0, 1, 0, 0};
  iovec vector{oversized, sizeof oversized};
  alignas(cmsghdr) uint8_t space[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{nullptr, 0, &vector, 1, space, sizeof space, 0};
  cmsghdr* rights = CMSG_FIRSTHDR(&header);
  *rights = cmsghdr{CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  memcpy(CMSG_DATA(rights), &carried.sock.descriptor, sizeof(int));
  ASSERT_EQ(sendmsg(control.client.descriptor, &header, 0), 4);
  EXPECT_EQ(socket_msg_recv_dup(&control.server, nullptr, &received, &flag, &passed), -1);
  EXPECT_EQ(socket_strerror(&control.server), text_of(EMSGSIZE));
  EXPECT_EQ(open_descriptors(), before);
}

TEST(SocketRecord, CloseSparesDescriptorZeroAndClosedRecordsRefuseEverything) {
  socket_record closed{};
  closed.descriptor = 0;
  socket_close(&closed);
  EXPECT_EQ(closed.descriptor, 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);

  stream_pair pair;
  int descriptor = pair.client.descriptor;
  socket_close(&pair.client);
  socket_close(&pair.client);
  EXPECT_EQ(pair.client.descriptor, -1);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);

  closed.descriptor = -1;
  socket_message message = message_of("x");
  socket_record other{};
  char buffer[4];
  uint64_t size = sizeof buffer;
  for (int result : {socket_msg_send(&closed, nullptr, &message), socket_msg_recv(&closed, nullptr, &message),
                     socket_raw_recv(&closed, buffer, &size), socket_raw_send(&closed, buffer, &size),
                     socket_accept(&closed, 0, &other), socket_inherit(&closed, 1),
                     socket_peername(&closed) == nullptr ? -1 : 0}) {
    EXPECT_EQ(result, -1);
  }
  EXPECT_EQ(socket_strerror(&closed), text_of(EINVAL));
}

TEST(SocketRecord, PeerNameOfIpConnectionsOnly) {
  for (const char* host : {"127.0.0.1", "::1"}) {  // no brackets around an IPv6 address
    stream_pair pair(host);
    const char* name = socket_peername(&pair.server);
    ASSERT_NE(name, nullptr) << socket_strerror(&pair.server);
    EXPECT_EQ(std::string(name), std::string(host) + ":" + local_port(pair.client));
  }
  scratch_dir dir;
  unix_datagram node(dir.file("node"));
  EXPECT_EQ(socket_peername(&node.sock), nullptr);
  EXPECT_EQ(socket_strerror(&node.sock), text_of(EINVAL));
}

TEST(SocketRaw, UdpRoundTripAndEndOfStream) {
  socket_address address{}, to_b{}, source{};
  ASSERT_EQ(socket_address_udp("127.0.0.1", "0", &address), 0);
  socket_record a{}, b{};
  ASSERT_EQ(socket_open(&address, 1, 0, &a), 0);
  ASSERT_EQ(socket_open(&address, 1, 0, &b), 0);
  ASSERT_EQ(socket_address_udp("127.0.0.1", local_port(b).c_str(), &to_b), 0);
  uint64_t size = 3;
  ASSERT_EQ(socket_raw_sendto(&a, &to_b, "udp", &size), 0);
  EXPECT_EQ(size, 3u);
  char buffer[16];
  size = sizeof buffer;
  ASSERT_EQ(socket_raw_recvfrom(&b, &source, buffer, &size), 0);
  EXPECT_EQ(std::string(buffer, size), "udp");
  EXPECT_EQ(std::to_string(ntohs(reinterpret_cast<sockaddr_in*>(source.storage)->sin_port)), local_port(a));
  socket_close(&a);
  socket_close(&b);

  stream_pair pair;
  socket_close(&pair.client);
  size = sizeof buffer;
  ASSERT_EQ(socket_raw_recv(&pair.server, buffer, &size), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(socket_is_alive(&pair.server), 0);
}

}  // namespace

#include "base/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "base/runtime.h"

namespace {

// Sends to a vanished peer must fail with EPIPE, not end the test binary.
const runtime_sighandler previous_sigpipe = runtime_startup();

std::string text_of(int error) { return strerror(error); }

bool is_cloexec(int descriptor) { return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0; }

int open_descriptors() {
  int count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

uint16_t local_port(const socket_record& sock) {
  sockaddr_storage name{};
  socklen_t length = sizeof name;
  getsockname(sock.descriptor, reinterpret_cast<sockaddr*>(&name), &length);
  if (name.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&name)->sin6_port);
  return ntohs(reinterpret_cast<sockaddr_in*>(&name)->sin_port);
}

// A scratch directory for unix socket paths, short enough for sun_path.
struct scratch_dir {
  std::string path;
  std::vector<std::string> files;
  scratch_dir() {
    char name[] = "/tmp/appsrv-sock-XXXXXX";
    path = mkdtemp(name);
  }
  std::string file(const char* leaf) {
    files.push_back(path + "/" + leaf);
    return files.back();
  }
  ~scratch_dir() {
    for (const auto& f : files) unlink(f.c_str());
    rmdir(path.c_str());
  }
};

// A connected loopback TCP pair on a kernel-chosen port.
struct tcp_pair {
  socket_record listener{};
  socket_record client{};
  socket_record server{};
  explicit tcp_pair(const char* host = "127.0.0.1") {
    socket_address address{};
    EXPECT_EQ(socket_address_tcp(host, "0", &address), 0);
    EXPECT_EQ(socket_open(&address, 1, 1, &listener), 0) << socket_strerror(nullptr);
    std::string port = std::to_string(local_port(listener));
    EXPECT_EQ(socket_address_tcp(host, port.c_str(), &address), 0);
    EXPECT_EQ(socket_open(&address, 0, 1, &client), 0) << socket_strerror(nullptr);
    EXPECT_EQ(socket_accept(&listener, 0, &server), 0) << socket_strerror(&listener);
  }
  ~tcp_pair() {
    socket_close(&server);
    socket_close(&client);
    socket_close(&listener);
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
  while (done < count) {
    uint64_t size = count - done;
    if (socket_raw_recv(sock, bytes.data() + done, &size) != 0 || size == 0) break;
    done += size;
  }
  bytes.resize(done);
  return bytes;
}

// The message borrows the bytes: literals, or strings that outlive it.
socket_message message_of(const char* text) { return {text, strlen(text)}; }
socket_message message_of(const std::string& bytes) { return {bytes.data(), bytes.size()}; }
socket_message message_of(std::string&& bytes) = delete;

std::string text_of(const socket_message& message) {
  return std::string(static_cast<const char*>(message.data), message.size);
}

TEST(SocketAddress, UnixPathMustLeaveRoomForTheTerminator) {
  socket_address address{};
  std::string longest(107, 'p');
  ASSERT_EQ(socket_address_unix(longest.c_str(), &address), 0);
  EXPECT_EQ(address.length, 109u);
  const auto* name = reinterpret_cast<const sockaddr_un*>(address.storage);
  EXPECT_EQ(name->sun_family, AF_UNIX);
  EXPECT_EQ(std::string(name->sun_path), longest);

  std::string too_long(108, 'p');
  EXPECT_EQ(socket_address_unix(too_long.c_str(), &address), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(ENAMETOOLONG));
}

TEST(SocketAddress, TcpAndUdpTakeNumericHostsOnly) {
  socket_address address{};
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "8080", &address), 0);
  EXPECT_EQ(address.length, sizeof(sockaddr_in));
  const auto* v4 = reinterpret_cast<const sockaddr_in*>(address.storage);
  EXPECT_EQ(v4->sin_family, AF_INET);
  EXPECT_EQ(ntohs(v4->sin_port), 8080);

  ASSERT_EQ(socket_address_udp("::1", "8080", &address), 0);
  EXPECT_EQ(address.length, sizeof(sockaddr_in6));
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(address.storage)->sin6_family, AF_INET6);

  EXPECT_EQ(socket_address_tcp("localhost", "8080", &address), -1);
  EXPECT_STREQ(socket_strerror(nullptr), gai_strerror(EAI_NONAME));
}

TEST(SocketOpen, FailuresGoToTheFamilyError) {
  socket_address address{};
  socket_record sock{};
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
  EXPECT_EQ(socket_open(&address, 0, 0, &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(EINVAL));

  // A port that was just released has no listener: the connect is refused.
  socket_record listener{};
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  std::string port = std::to_string(local_port(listener));
  socket_close(&listener);
  ASSERT_EQ(socket_address_tcp("127.0.0.1", port.c_str(), &address), 0);
  int before = open_descriptors();
  EXPECT_EQ(socket_open(&address, 0, 1, &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(ECONNREFUSED));
  EXPECT_EQ(open_descriptors(), before);
}

TEST(SocketOpen, RecordsAreFilledAndCloseOnExec) {
  tcp_pair pair;
  for (const socket_record* sock : {&pair.listener, &pair.client, &pair.server}) {
    EXPECT_EQ(sock->family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(sock->type, static_cast<uint32_t>(SOCK_STREAM));
    EXPECT_EQ(sock->poll_slot, UINT64_MAX);
    EXPECT_EQ(sock->chunked_in, nullptr);
    EXPECT_EQ(sock->chunked_out, nullptr);
    EXPECT_TRUE(is_cloexec(sock->descriptor));
  }
}

TEST(SocketOpen, StaleUnixSocketFileDoesNotBlockTheBind) {
  scratch_dir dir;
  std::string path = dir.file("node");
  socket_address address{};
  ASSERT_EQ(socket_address_unix(path.c_str(), &address), 0);
  socket_record first{};
  ASSERT_EQ(socket_open(&address, 1, 0, &first), 0);
  socket_close(&first);
  struct stat status{};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  ASSERT_TRUE(S_ISSOCK(status.st_mode));  // what an earlier run leaves behind

  socket_record second{};
  ASSERT_EQ(socket_open(&address, 1, 1, &second), 0) << socket_strerror(nullptr);
  EXPECT_EQ(second.family, static_cast<uint32_t>(AF_UNIX));
  socket_close(&second);

  // Even a plain file standing in the way is removed.
  unlink(path.c_str());
  int file = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  close(file);
  ASSERT_EQ(socket_open(&address, 1, 0, &second), 0) << socket_strerror(nullptr);
  socket_close(&second);
}

TEST(SocketFrame, PayloadGoesOutBehindABigEndianLength) {
  tcp_pair pair;
  socket_message message = message_of("hello");
  ASSERT_EQ(socket_msg_send(&pair.client, nullptr, &message), 0);
  EXPECT_EQ(receive_exactly(&pair.server, 9), std::string("\0\0\0\x05hello", 9));

  // And the framed receive undoes exactly that.
  std::string payload(300, 'z');
  payload[0] = 'a';
  message = message_of(payload);
  ASSERT_EQ(socket_msg_send(&pair.server, nullptr, &message), 0);
  socket_message received{};
  ASSERT_EQ(socket_msg_recv(&pair.client, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), payload);
}

TEST(SocketFrame, SizeLimitsRefuseWithoutWriting) {
  tcp_pair pair;
  std::string largest(65535, 'x');
  largest.back() = 'y';
  socket_message message = message_of(largest);
  ASSERT_EQ(socket_msg_send(&pair.client, nullptr, &message), 0);
  socket_message received{};
  ASSERT_EQ(socket_msg_recv(&pair.server, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), largest);

  std::string too_large(65536, 'x');
  message = message_of(too_large);
  EXPECT_EQ(socket_msg_send(&pair.client, nullptr, &message), -1);
  EXPECT_EQ(socket_strerror(&pair.client), text_of(EMSGSIZE));
  message = {"", 0};
  EXPECT_EQ(socket_msg_send(&pair.client, nullptr, &message), -1);
  EXPECT_EQ(socket_strerror(&pair.client), text_of(EINVAL));

  // The next frame on the wire is the one sent after the refusals.
  message = message_of("next");
  ASSERT_EQ(socket_msg_send(&pair.client, nullptr, &message), 0);
  ASSERT_EQ(socket_msg_recv(&pair.server, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), "next");
}

TEST(SocketFrame, PeerCloseBeforeAFrameIsAnEmptyMessage) {
  tcp_pair pair;
  socket_close(&pair.client);
  socket_message received{"stale", 5};
  ASSERT_EQ(socket_msg_recv(&pair.server, nullptr, &received), 0);
  EXPECT_EQ(received.data, nullptr);
  EXPECT_EQ(received.size, 0u);
  EXPECT_EQ(socket_is_alive(&pair.server), 0);
  EXPECT_EQ(pair.server.descriptor, -1);
}

TEST(SocketFrame, StreamEndingInsideTheLengthWordIsEio) {
  tcp_pair pair;
  uint64_t size = 2;
  ASSERT_EQ(socket_raw_send(&pair.client, "\0\0", &size), 0);
  socket_close(&pair.client);
  socket_message received{};
  EXPECT_EQ(socket_msg_recv(&pair.server, nullptr, &received), -1);
  EXPECT_EQ(socket_strerror(&pair.server), text_of(EIO));
}

TEST(SocketFrame, OversizedLengthIsRefusedBeforeThePayload) {
  tcp_pair pair;
  uint64_t size = 6;
  ASSERT_EQ(socket_raw_send(&pair.client, "\0\x01\0\0ab", &size), 0);
  socket_message received{};
  EXPECT_EQ(socket_msg_recv(&pair.server, nullptr, &received), -1);
  EXPECT_EQ(socket_strerror(&pair.server), text_of(EMSGSIZE));
  EXPECT_EQ(receive_exactly(&pair.server, 2), "ab");
}

TEST(SocketFrame, ZeroLengthWordEndsTheStream) {
  tcp_pair pair;
  uint64_t size = 4;
  ASSERT_EQ(socket_raw_send(&pair.client, "\0\0\0\0", &size), 0);
  socket_message received{};
  ASSERT_EQ(socket_msg_recv(&pair.server, nullptr, &received), 0);
  EXPECT_EQ(received.size, 0u);
  EXPECT_EQ(socket_is_alive(&pair.server), 0);
}

TEST(SocketDatagram, DestinationMustMatchTheSocket) {
  scratch_dir dir;
  unix_datagram node(dir.file("node"));
  socket_message message = message_of("ping");
  EXPECT_EQ(socket_msg_send(&node.sock, nullptr, &message), -1);
  EXPECT_EQ(socket_strerror(&node.sock), text_of(EDESTADDRREQ));
  socket_address inet{};
  ASSERT_EQ(socket_address_udp("127.0.0.1", "9", &inet), 0);
  EXPECT_EQ(socket_msg_send(&node.sock, &inet, &message), -1);
  EXPECT_EQ(socket_strerror(&node.sock), text_of(EPFNOSUPPORT));
}

TEST(SocketDatagram, OneDatagramIsOneMessageWithItsSource) {
  scratch_dir dir;
  unix_datagram node(dir.file("node"));
  unix_datagram worker(dir.file("worker"));
  socket_message message = message_of("set name");
  ASSERT_EQ(socket_msg_send(&node.sock, &worker.address, &message), 0);

  socket_address source{};
  socket_message received{};
  ASSERT_EQ(socket_msg_recv(&worker.sock, &source, &received), 0);
  EXPECT_EQ(text_of(received), "set name");  // no length word on a datagram
  // The platform counts the path's terminator in the length it returns.
  EXPECT_GE(source.length, node.address.length);
  EXPECT_STREQ(reinterpret_cast<const sockaddr_un*>(source.storage)->sun_path,
               reinterpret_cast<const sockaddr_un*>(node.address.storage)->sun_path);

  // A datagram longer than any message is cut to the largest message.
  std::string oversized(70000, 'd');
  uint64_t size = oversized.size();
  ASSERT_EQ(socket_raw_sendto(&node.sock, &worker.address, oversized.data(), &size), 0);
  ASSERT_EQ(socket_msg_recv(&worker.sock, nullptr, &received), 0);
  EXPECT_EQ(received.size, 65535u);
}

TEST(SocketPassing, DatagramCarriesOneDescriptor) {
  scratch_dir dir;
  unix_datagram node(dir.file("node"));
  unix_datagram worker(dir.file("worker"));
  tcp_pair connection;

  socket_message message = message_of("sockpass");
  ASSERT_EQ(socket_msg_send_dup(&node.sock, &worker.address, &message, &connection.server), 0);
  socket_message received{};
  int flag = 7;
  socket_record passed{};
  ASSERT_EQ(socket_msg_recv_dup(&worker.sock, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(text_of(received), "sockpass");
  ASSERT_EQ(flag, 0);
  ASSERT_GE(passed.descriptor, 0);
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

TEST(SocketPassing, StreamFrameKeepsTheDescriptorOfItsLengthWord) {
  scratch_dir dir;
  socket_address address{};
  ASSERT_EQ(socket_address_unix(dir.file("control").c_str(), &address), 0);
  socket_record listener{}, client{}, server{};
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  ASSERT_EQ(socket_open(&address, 0, 1, &client), 0);
  ASSERT_EQ(socket_accept(&listener, 1, &server), 0);
  EXPECT_EQ(listener.descriptor, -1);  // one-shot listener
  EXPECT_EQ(server.family, static_cast<uint32_t>(AF_UNIX));
  unix_datagram carried(dir.file("carried"));

  socket_message message = message_of("with descriptor");
  ASSERT_EQ(socket_msg_send_dup(&client, nullptr, &message, &carried.sock), 0);
  message = message_of("without");
  ASSERT_EQ(socket_msg_send(&client, nullptr, &message), 0);

  socket_message received{};
  int flag = 7;
  socket_record passed{};
  ASSERT_EQ(socket_msg_recv_dup(&server, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(text_of(received), "with descriptor");
  ASSERT_EQ(flag, 0);
  EXPECT_EQ(passed.type, static_cast<uint32_t>(SOCK_DGRAM));
  EXPECT_TRUE(is_cloexec(passed.descriptor));
  socket_close(&passed);

  ASSERT_EQ(socket_msg_recv_dup(&server, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(text_of(received), "without");
  EXPECT_EQ(flag, -1);

  // A receiver that takes no descriptor must not be left holding one.
  int before = open_descriptors();
  message = message_of("unwanted");
  ASSERT_EQ(socket_msg_send_dup(&client, nullptr, &message, &carried.sock), 0);
  ASSERT_EQ(socket_msg_recv(&server, nullptr, &received), 0);
  EXPECT_EQ(text_of(received), "unwanted");
  EXPECT_EQ(open_descriptors(), before);

  // Nor one that came with a frame it refused.
  uint8_t oversized[] = {0, 1, 0, 0};
  int carried_descriptor = carried.sock.descriptor;
  iovec vector{oversized, sizeof oversized};
  union {
    cmsghdr header;
    uint8_t bytes[CMSG_SPACE(sizeof(int))];
  } control{};
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control.bytes;
  header.msg_controllen = sizeof control.bytes;
  cmsghdr* first = CMSG_FIRSTHDR(&header);
  first->cmsg_level = SOL_SOCKET;
  first->cmsg_type = SCM_RIGHTS;
  first->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(first), &carried_descriptor, sizeof(int));
  ASSERT_EQ(sendmsg(client.descriptor, &header, 0), 4);
  EXPECT_EQ(socket_msg_recv_dup(&server, nullptr, &received, &flag, &passed), -1);
  EXPECT_EQ(socket_strerror(&server), text_of(EMSGSIZE));
  EXPECT_EQ(open_descriptors(), before);

  socket_close(&server);
  socket_close(&client);
}

TEST(SocketRecord, CloseLeavesDescriptorZeroAndClosedRecordsAlone) {
  socket_record standard_input{};
  standard_input.descriptor = 0;
  socket_close(&standard_input);
  EXPECT_EQ(standard_input.descriptor, 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);

  tcp_pair pair;
  int descriptor = pair.client.descriptor;
  socket_close(&pair.client);
  EXPECT_EQ(pair.client.descriptor, -1);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  socket_close(&pair.client);
  EXPECT_EQ(pair.client.descriptor, -1);
}

TEST(SocketRecord, ClosedRecordRefusesEveryOperation) {
  socket_record closed{};
  closed.descriptor = -1;
  socket_message message = message_of("x");
  socket_record other{};
  char buffer[4];
  uint64_t size = sizeof buffer;
  auto refused = [&](int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(socket_strerror(&closed), text_of(EINVAL));
    closed.error = nullptr;
  };
  refused(socket_msg_send(&closed, nullptr, &message));
  refused(socket_msg_recv(&closed, nullptr, &message));
  refused(socket_raw_recv(&closed, buffer, &size));
  refused(socket_raw_send(&closed, buffer, &size));
  refused(socket_accept(&closed, 0, &other));
  refused(socket_inherit(&closed, 1));
  EXPECT_EQ(socket_peername(&closed), nullptr);
  EXPECT_EQ(socket_strerror(&closed), text_of(EINVAL));
}

TEST(SocketRecord, LoadAdoptsOnlySocketsAndMakesThemBlocking) {
  int pipe_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  socket_record sock{};
  EXPECT_EQ(socket_load(pipe_ends[0], &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(ENOTSOCK));
  close(pipe_ends[0]);
  EXPECT_EQ(socket_load(pipe_ends[0], &sock), -1);
  EXPECT_EQ(socket_strerror(nullptr), text_of(EBADF));
  close(pipe_ends[1]);

  // As a child would find an inherited descriptor: non-blocking, no cloexec.
  int raw = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  ASSERT_GE(raw, 0);
  ASSERT_EQ(socket_load(raw, &sock), 0);
  EXPECT_EQ(sock.descriptor, raw);
  EXPECT_EQ(sock.family, static_cast<uint32_t>(AF_UNIX));
  EXPECT_EQ(sock.type, static_cast<uint32_t>(SOCK_DGRAM));
  EXPECT_EQ(sock.poll_slot, UINT64_MAX);
  EXPECT_EQ(fcntl(raw, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_TRUE(is_cloexec(raw));

  socket_record copy{};
  socket_dup(&sock, &copy);
  ASSERT_GE(copy.descriptor, 0);
  EXPECT_NE(copy.descriptor, sock.descriptor);
  EXPECT_EQ(copy.family, sock.family);
  EXPECT_EQ(copy.type, sock.type);
  EXPECT_TRUE(is_cloexec(copy.descriptor));
  socket_close(&copy);
  socket_close(&sock);
}

TEST(SocketRecord, InheritTogglesCloseOnExec) {
  tcp_pair pair;
  ASSERT_EQ(socket_inherit(&pair.server, 1), 0);
  EXPECT_FALSE(is_cloexec(pair.server.descriptor));
  ASSERT_EQ(socket_inherit(&pair.server, 0), 0);
  EXPECT_TRUE(is_cloexec(pair.server.descriptor));
}

TEST(SocketRecord, PeerNameOfIpConnectionsOnly) {
  tcp_pair v4;
  std::string expected = "127.0.0.1:" + std::to_string(local_port(v4.client));
  const char* name = socket_peername(&v4.server);
  ASSERT_NE(name, nullptr) << socket_strerror(&v4.server);
  EXPECT_EQ(std::string(name), expected);

  tcp_pair v6("::1");  // no brackets around an IPv6 address
  expected = "::1:" + std::to_string(local_port(v6.client));
  name = socket_peername(&v6.server);
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(std::string(name), expected);

  scratch_dir dir;
  unix_datagram node(dir.file("node"));
  EXPECT_EQ(socket_peername(&node.sock), nullptr);
  EXPECT_EQ(socket_strerror(&node.sock), text_of(EINVAL));
}

TEST(SocketRaw, UdpRoundTripAndEndOfStream) {
  socket_address address{};
  ASSERT_EQ(socket_address_udp("127.0.0.1", "0", &address), 0);
  socket_record a{}, b{};
  ASSERT_EQ(socket_open(&address, 1, 0, &a), 0);
  ASSERT_EQ(socket_open(&address, 1, 0, &b), 0);
  socket_address to_b{};
  ASSERT_EQ(socket_address_udp("127.0.0.1", std::to_string(local_port(b)).c_str(), &to_b), 0);

  uint64_t size = 3;
  ASSERT_EQ(socket_raw_sendto(&a, &to_b, "udp", &size), 0);
  EXPECT_EQ(size, 3u);
  char buffer[16];
  size = sizeof buffer;
  socket_address source{};
  ASSERT_EQ(socket_raw_recvfrom(&b, &source, buffer, &size), 0);
  EXPECT_EQ(std::string(buffer, size), "udp");
  EXPECT_EQ(source.length, sizeof(sockaddr_in));
  EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in*>(source.storage)->sin_port), local_port(a));
  socket_close(&a);
  socket_close(&b);

  tcp_pair pair;
  socket_close(&pair.client);
  size = sizeof buffer;
  ASSERT_EQ(socket_raw_recv(&pair.server, buffer, &size), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(socket_is_alive(&pair.server), 0);
}

}  // namespace

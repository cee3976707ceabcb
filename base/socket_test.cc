#include "base/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/time.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "base/sockpoll.h"

namespace {

// Sends to a vanished peer must fail with EPIPE, not end the test binary.
const runtime_sighandler previous_sigpipe = runtime_startup();

std::string text_of(int error) { return strerror(error); }

// -1 with the platform text of `error` in the record, or in the family error for null.
testing::AssertionResult fails_with(int result, const socket_record* sock, int error) {
  const char* reason = socket_strerror(sock);
  if (result == -1 && reason != nullptr && reason == text_of(error)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "result " << result << ", reason " << (reason ? reason : "none");
}

// What a caller relies on in a fresh record, in one line.
std::string fields(const socket_record& sock) {
  int flags = fcntl(sock.descriptor, F_GETFD);
  return std::string(sock.family == AF_UNIX ? "unix" : sock.family == AF_INET ? "inet" : "inet6") +
         (sock.type == SOCK_STREAM ? " stream" : " datagram") + (sock.poll_slot == UINT64_MAX ? "" : " attached") +
         (flags < 0 ? " closed" : flags & FD_CLOEXEC ? " cloexec" : " inherited") +
         (sock.chunked_in || sock.chunked_out ? " streaming" : "");
}

int send_text(socket_record* sock, const std::string& text, const socket_address* to = nullptr,
              const socket_record* passed = nullptr) {
  socket_message message{text.data(), text.size()};
  return passed ? socket_msg_send_dup(sock, to, &message, passed) : socket_msg_send(sock, to, &message);
}

std::string recv_text(socket_record* sock, socket_address* source = nullptr) {
  socket_message message{};
  if (socket_msg_recv(sock, source, &message) != 0) return "<failed>";
  return std::string(static_cast<const char*>(message.data), message.size);
}

int open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
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

// A connected stream pair on a kernel-chosen loopback port.
struct stream_pair {
  socket_record listener{}, client{}, server{};
  socket_address address{};  // the listener's
  explicit stream_pair(const char* host = "127.0.0.1") {
    EXPECT_EQ(socket_address_tcp(host, "0", &address), 0);
    EXPECT_EQ(socket_open(&address, 1, 1, &listener), 0) << socket_strerror(nullptr);
    EXPECT_EQ(socket_address_tcp(host, local_port(listener).c_str(), &address), 0);
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

// Both ends of a connected unix stream pair, adopted as socket records.
struct unix_pair {
  socket_record near{}, far{};
  unix_pair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(socket_load(ends[0], &near), 0);
    EXPECT_EQ(socket_load(ends[1], &far), 0);
  }
  ~unix_pair() {
    socket_close(&near);
    socket_close(&far);
  }
  // Everything put on the wire towards `far` so far, without waiting: a unix
  // stream socket queues the bytes before the sender's send returns.
  std::string on_the_wire() {
    std::string taken;
    char buffer[8192];
    for (ssize_t got; (got = recv(far.descriptor, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) taken.append(buffer, got);
    return taken;
  }
  void put(const std::string& wire, bool then_close = false) {
    uint64_t size = wire.size();
    EXPECT_EQ(socket_raw_send(&near, wire.data(), &size), 0);
    if (then_close) socket_close(&near);
  }
};

std::string length_word(uint32_t length) {
  return {static_cast<char>(length >> 24), static_cast<char>(length >> 16), static_cast<char>(length >> 8),
          static_cast<char>(length)};
}

std::string pattern(size_t size, int step) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * step + 1);
  return data;
}

TEST(SocketAddress, UnixPathsUpTo107BytesAndNumericHostsOnly) {
  socket_address address{};
  std::string longest(107, 'p');
  ASSERT_EQ(socket_address_unix(longest.c_str(), &address), 0);
  EXPECT_EQ(address.length, 109u);
  EXPECT_EQ(reinterpret_cast<const sockaddr_un*>(address.storage)->sun_path, longest);
  EXPECT_TRUE(fails_with(socket_address_unix(std::string(108, 'p').c_str(), &address), nullptr, ENAMETOOLONG));
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "8080", &address), 0);
  EXPECT_EQ(ntohs(reinterpret_cast<const sockaddr_in*>(address.storage)->sin_port), 8080);
  ASSERT_EQ(socket_address_udp("::1", "8080", &address), 0);
  EXPECT_EQ(socket_address_tcp("localhost", "8080", &address), -1);
  EXPECT_STREQ(socket_strerror(nullptr), gai_strerror(EAI_NONAME));
}

TEST(SocketOpen, FailuresGoToTheFamilyErrorWithNothingLeftOpen) {
  socket_address address{};
  socket_record sock{}, listener{};
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
  EXPECT_TRUE(fails_with(socket_open(&address, 0, 0, &sock), nullptr, EINVAL));
  // A port that was just released has no listener: the connect is refused.
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  std::string port = local_port(listener);
  socket_close(&listener);
  ASSERT_EQ(socket_address_tcp("127.0.0.1", port.c_str(), &address), 0);
  int before = open_descriptors();
  EXPECT_TRUE(fails_with(socket_open(&address, 0, 1, &sock), nullptr, ECONNREFUSED));
  EXPECT_EQ(open_descriptors(), before);

  // A socket file an earlier run left behind does not block the bind.
  scratch_dir dir;
  { unix_datagram earlier(dir.file("node")); }
  ASSERT_TRUE(std::filesystem::is_socket(dir.file("node")));
  unix_datagram again(dir.file("node"));
  EXPECT_EQ(fields(again.sock), "unix datagram cloexec");
  std::ofstream(dir.file("plain")) << "x";  // even a plain file in the way is replaced
  unix_datagram over_file(dir.file("plain"));
  EXPECT_TRUE(std::filesystem::is_socket(dir.file("plain")));
}

TEST(SocketRecord, EveryDescriptorIsCloseOnExecAndTheRecordFilled) {
  stream_pair pair;
  for (const socket_record* sock : {&pair.listener, &pair.client, &pair.server}) {
    EXPECT_EQ(fields(*sock), "inet stream cloexec");
  }

  // As a child would find an inherited descriptor: non-blocking, no cloexec.
  socket_record sock{}, copy{};
  int raw = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  ASSERT_EQ(socket_load(raw, &sock), 0);
  EXPECT_EQ(sock.descriptor, raw);
  EXPECT_EQ(fields(sock), "unix datagram cloexec");
  EXPECT_EQ(fcntl(raw, F_GETFL) & O_NONBLOCK, 0);
  socket_dup(&sock, &copy);
  EXPECT_EQ(fields(copy), "unix datagram cloexec");
  socket_close(&copy);
  socket_close(&sock);

  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  EXPECT_TRUE(fails_with(socket_load(ends[0], &sock), nullptr, ENOTSOCK));
  close(ends[0]);
  close(ends[1]);
  EXPECT_TRUE(fails_with(socket_load(ends[0], &sock), nullptr, EBADF));
}

TEST(SocketFrame, PayloadGoesOutBehindABigEndianLengthOf1To65535) {
  unix_pair pair;
  ASSERT_EQ(send_text(&pair.near, "hello"), 0);
  EXPECT_EQ(pair.on_the_wire(), length_word(5) + "hello");
  std::string largest = pattern(65535, 7);
  ASSERT_EQ(send_text(&pair.near, largest), 0);
  EXPECT_EQ(recv_text(&pair.far), largest);
  // Refusals write nothing: the next frame on the wire is the one sent after.
  EXPECT_TRUE(fails_with(send_text(&pair.near, std::string(65536, 'x')), &pair.near, EMSGSIZE));
  EXPECT_TRUE(fails_with(send_text(&pair.near, ""), &pair.near, EINVAL));
  ASSERT_EQ(send_text(&pair.near, "next"), 0);
  EXPECT_EQ(recv_text(&pair.far), "next");
}

TEST(SocketFrame, BrokenAndEndingStreams) {
  const struct { std::string wire; bool close; int error; const char* left; } cases[] = {
      {"", true, 0, ""},  // peer gone before a frame: an empty message, socket dead
      {length_word(0), false, 0, ""},  // a zero length word ends the stream
      {std::string("\0\0", 2), true, EIO, ""},  // the stream ends inside the length word
      {length_word(65536) + "ab", true, EMSGSIZE, "ab"},  // refused before the payload
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.wire.size() << " bytes on the wire");
    unix_pair pair;
    pair.put(c.wire, c.close);
    socket_message received{"stale", 5};
    int result = socket_msg_recv(&pair.far, nullptr, &received);
    if (c.error != 0) {
      EXPECT_TRUE(fails_with(result, &pair.far, c.error));
      EXPECT_EQ(pair.on_the_wire(), c.left);
    } else {
      EXPECT_EQ(result, 0);
      EXPECT_EQ(received.size, 0u);
      EXPECT_TRUE(!c.close || received.data == nullptr);
      EXPECT_EQ(socket_is_alive(&pair.far), 0);
      EXPECT_EQ(pair.far.descriptor, -1);
    }
  }
}

TEST(SocketDatagram, OneDatagramIsOneMessageWithItsSource) {
  scratch_dir dir;
  unix_datagram node(dir.file("node")), worker(dir.file("worker"));
  socket_address inet{}, source{};
  ASSERT_EQ(socket_address_udp("127.0.0.1", "9", &inet), 0);
  EXPECT_TRUE(fails_with(send_text(&node.sock, "set name"), &node.sock, EDESTADDRREQ));
  EXPECT_TRUE(fails_with(send_text(&node.sock, "set name", &inet), &node.sock, EPFNOSUPPORT));
  ASSERT_EQ(send_text(&node.sock, "set name", &worker.address), 0);
  EXPECT_EQ(recv_text(&worker.sock, &source), "set name");  // no length word on a datagram
  EXPECT_EQ(reinterpret_cast<const sockaddr_un*>(source.storage)->sun_path, dir.file("node"));

  // Raw datagrams carry their source too; one longer than any message is cut to the largest.
  std::string oversized(70000, 'd');
  char buffer[8];
  for (uint64_t size : {uint64_t{3}, uint64_t{70000}}) {
    ASSERT_EQ(socket_raw_sendto(&node.sock, &worker.address, oversized.data(), &size), 0);
  }
  uint64_t size = sizeof buffer;
  source = {};
  ASSERT_EQ(socket_raw_recvfrom(&worker.sock, &source, buffer, &size), 0);
  EXPECT_EQ(std::string(buffer, size), "ddd");
  EXPECT_EQ(reinterpret_cast<const sockaddr_un*>(source.storage)->sun_path, dir.file("node"));
  EXPECT_EQ(recv_text(&worker.sock).size(), 65535u);
}

TEST(SocketPassing, DatagramCarriesOneCloseOnExecDescriptor) {
  scratch_dir dir;
  unix_datagram node(dir.file("node")), worker(dir.file("worker"));
  stream_pair connection;
  ASSERT_EQ(send_text(&node.sock, "sockpass", &worker.address, &connection.server), 0);
  ASSERT_EQ(send_text(&node.sock, "shutdown", &worker.address), 0);
  socket_message received{};
  int flag = 7;
  socket_record passed{};
  ASSERT_EQ(socket_msg_recv_dup(&worker.sock, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(received.size, 8u);
  ASSERT_EQ(flag, 0);
  EXPECT_NE(passed.descriptor, connection.server.descriptor);
  EXPECT_EQ(fields(passed), "inet stream cloexec");
  // The passed record is the same connection: the client hears it.
  ASSERT_EQ(send_text(&passed, "from the stack"), 0);
  EXPECT_EQ(recv_text(&connection.client), "from the stack");
  socket_close(&passed);
  ASSERT_EQ(socket_msg_recv_dup(&worker.sock, nullptr, &received, &flag, &passed), 0);
  EXPECT_EQ(flag, -1);
}

TEST(SocketPassing, StreamFrameKeepsItsDescriptorAndUnwantedOnesAreClosed) {
  scratch_dir dir;
  socket_address address{};
  socket_record listener{}, client{}, server{}, passed{};
  ASSERT_EQ(socket_address_unix(dir.file("control").c_str(), &address), 0);
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  ASSERT_EQ(socket_open(&address, 0, 1, &client), 0);
  ASSERT_EQ(socket_accept(&listener, 1, &server), 0);
  EXPECT_EQ(listener.descriptor, -1);  // one-shot listener
  unix_datagram carried(dir.file("carried"));
  ASSERT_EQ(send_text(&client, "with descriptor", nullptr, &carried.sock), 0);
  ASSERT_EQ(send_text(&client, "without"), 0);
  socket_message received{};
  for (int expected_flag : {0, -1}) {
    int flag = 7;
    ASSERT_EQ(socket_msg_recv_dup(&server, nullptr, &received, &flag, &passed), 0);
    EXPECT_EQ(received.size, expected_flag == 0 ? 15u : 7u);
    ASSERT_EQ(flag, expected_flag);
  }
  EXPECT_EQ(fields(passed), "unix datagram cloexec");
  socket_close(&passed);

  // A receiver that takes no descriptor must not be left holding one,
  int before = open_descriptors();
  ASSERT_EQ(send_text(&client, "unwanted", nullptr, &carried.sock), 0);
  EXPECT_EQ(recv_text(&server), "unwanted");
  EXPECT_EQ(open_descriptors(), before);
  // nor one that came with a frame it refused.
  uint8_t oversized[] = {0, 1, 0, 0};
  iovec vector{oversized, sizeof oversized};
  alignas(cmsghdr) uint8_t space[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{nullptr, 0, &vector, 1, space, sizeof space, 0};
  cmsghdr* rights = CMSG_FIRSTHDR(&header);
  *rights = cmsghdr{CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  memcpy(CMSG_DATA(rights), &carried.sock.descriptor, sizeof(int));
  ASSERT_EQ(sendmsg(client.descriptor, &header, 0), 4);
  int flag = 7;
  EXPECT_TRUE(fails_with(socket_msg_recv_dup(&server, nullptr, &received, &flag, &passed), &server, EMSGSIZE));
  EXPECT_EQ(open_descriptors(), before);
  socket_close(&server);
  socket_close(&client);
}

TEST(SocketRecord, CloseSparesDescriptorZeroAndClosedRecordsRefuseEverything) {
  socket_record closed{};
  closed.descriptor = 0;
  socket_close(&closed);
  EXPECT_EQ(closed.descriptor, 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);

  // A peer that went away: raw end of stream, then the record is closed.
  stream_pair pair;
  socket_close(&pair.client);
  socket_close(&pair.client);
  char buffer[4];
  uint64_t size = sizeof buffer;
  ASSERT_EQ(socket_raw_recv(&pair.server, buffer, &size), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(socket_is_alive(&pair.server), 0);
  EXPECT_EQ(pair.server.descriptor, -1);

  socket_message message{"x", 1};
  std::function<int()> calls[] = {
      [&] { return socket_msg_send(&pair.server, nullptr, &message); },
      [&] { return socket_msg_recv(&pair.server, nullptr, &message); },
      [&] { return socket_raw_recv(&pair.server, buffer, &size); },
      [&] { return socket_raw_send(&pair.server, buffer, &size); },
      [&] { return socket_accept(&pair.server, 0, &closed); },
      [&] { return socket_inherit(&pair.server, 1); },
      [&] { return socket_peername(&pair.server) == nullptr ? -1 : 0; }};
  for (const auto& call : calls) {
    pair.server.error = nullptr;
    EXPECT_TRUE(fails_with(call(), &pair.server, EINVAL));
  }
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
  EXPECT_TRUE(fails_with(socket_peername(&node.sock) == nullptr ? -1 : 0, &node.sock, EINVAL));
}

TEST(Sockpoll, PendingConnectionsAreSeenAndDetachedSlotsReused) {
  sockpoll* set = sockpoll_create();
  stream_pair a, b, c, never;
  EXPECT_EQ(sockpoll_wait(set, 0), 0) << "an empty set times out at once";
  sockpoll_attach(set, &a.listener);
  sockpoll_attach(set, &a.listener);  // already in the set: nothing happens
  sockpoll_attach(set, &b.listener);
  EXPECT_EQ(set->count, 2u);
  EXPECT_EQ(b.listener.poll_slot, 1u);
  EXPECT_EQ(sockpoll_can_read(set, &never.listener), -1) << "never attached";
  EXPECT_EQ(sockpoll_wait(set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(set, &a.listener), 0);

  socket_record client{};
  ASSERT_EQ(socket_open(&a.address, 0, 1, &client), 0);
  EXPECT_EQ(sockpoll_wait(set, 1000), 1);
  EXPECT_EQ(sockpoll_can_read(set, &a.listener), 1);
  EXPECT_EQ(sockpoll_can_read(set, &b.listener), 0);
  // Once detached, a free slot reports nothing, even across a wait, and is taken next.
  sockpoll_detach(set, &a.listener);
  EXPECT_EQ(sockpoll_wait(set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(set, &a.listener), 0);
  sockpoll_attach(set, &c.listener);
  EXPECT_EQ(c.listener.poll_slot, 0u);
  EXPECT_EQ(set->count, 2u);
  socket_close(&client);

  // An interrupting signal (no SA_RESTART, as the daemon installs its stop handlers) ends the wait with 0.
  static volatile sig_atomic_t alarms = 0;
  struct sigaction action{}, previous{};
  action.sa_handler = [](int) { alarms = alarms + 1; };
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  itimerval timer{{0, 0}, {0, 50 * 1000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
  int64_t started = runtime_getclock();
  EXPECT_EQ(sockpoll_wait(set, 5000), 0);
  EXPECT_LT(runtime_getclock() - started, 2500);
  EXPECT_EQ(alarms, 1);
  sigaction(SIGALRM, &previous, nullptr);
  sockpoll_destroy(set);
}

TEST(ChunkedWriter, SmallWritesWaitLargeOnesGoOutAsStagingFills) {
  unix_pair pair;
  ostream* out = socket_ostream_chunked(&pair.near);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(pair.near.chunked_out, out);
  std::string data = pattern(5000, 7);
  ASSERT_EQ(ostream_write_len(out, data.data(), data.size()), 5000u);
  EXPECT_EQ(pair.on_the_wire(), length_word(5000) + data.substr(0, 4092));
  EXPECT_EQ(ostream_write_string(out, "abc"), 3u);
  EXPECT_EQ(ostream_write_len(out, "", 0), 0u);  // never an empty chunk
  EXPECT_EQ(ostream_write_len(out, "de", 2), 2u);
  EXPECT_EQ(pair.on_the_wire(), "");
  ostream_destroy(out);
  EXPECT_EQ(pair.near.chunked_out, nullptr);
  EXPECT_EQ(pair.on_the_wire(), data.substr(4092) + length_word(3) + "abc" + length_word(2) + "de" + length_word(0));

  // One output stream per socket; the next may come once the first is gone.
  out = socket_ostream_chunked(&pair.near);
  EXPECT_EQ(socket_ostream_chunked(&pair.near), nullptr);
  EXPECT_EQ(socket_ostream_zeroterm(&pair.near), nullptr);
  ostream_destroy(out);
  out = socket_ostream_zeroterm(&pair.near);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(ostream_write_string(out, "hi"), 2u);
  ostream_destroy(out);
  EXPECT_EQ(pair.on_the_wire(), length_word(0) + std::string("hi\0", 3));
}

TEST(ChunkedWriter, FailedSendReturnsZeroWithTheReason) {
  unix_pair pair;
  socket_close(&pair.far);
  std::string data(5000, 'x');
  // The zero-terminated writer counts what it took before the send failed.
  for (auto [create, taken] : {std::pair{&socket_ostream_chunked, 0u}, {&socket_ostream_zeroterm, 4096u}}) {
    ostream* out = create(&pair.near);
    EXPECT_EQ(ostream_write_len(out, data.data(), data.size()), taken);
    EXPECT_STREQ(socket_strerror(&pair.near), strerror(EPIPE));
    ostream_destroy(out);
  }
}

TEST(ChunkedReader, ReturnsTheBytesInAnySplitOfReads) {
  unix_pair pair;
  std::string data = pattern(5000, 7);
  pair.put(length_word(1) + data.substr(0, 1) + length_word(4999) + data.substr(1) + length_word(0));
  istream* in = socket_istream_chunked(&pair.far);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(pair.far.chunked_in, in);
  EXPECT_EQ(socket_istream_chunked(&pair.far), nullptr);  // one reader per socket
  std::string read;
  char buffer[5000];
  for (uint64_t want : {3u, 0u, 700u, 5000u, 10u}) read.append(buffer, istream_read_len(in, buffer, want));
  EXPECT_EQ(read, data);
  EXPECT_EQ(istream_read_len(in, buffer, 10), 0u);
  istream_destroy(in);
  EXPECT_EQ(pair.far.chunked_in, nullptr);

  // Unread chunks stay in the socket; the rest of a started one goes with the stream.
  pair.put(length_word(2) + "ab" + length_word(3) + "cde" + length_word(0));
  in = socket_istream_chunked(&pair.far);
  EXPECT_EQ(istream_read_len(in, buffer, 1), 1u);
  istream_destroy(in);
  EXPECT_EQ(pair.on_the_wire(), length_word(3) + "cde" + length_word(0));
}

TEST(ChunkedReader, PeerClosingInsideAChunkOrBeforeTheFirst) {
  unix_pair pair;
  pair.put(length_word(3) + "abc" + length_word(10) + "xyz", true);
  istream* in = socket_istream_chunked(&pair.far);
  ASSERT_NE(in, nullptr);
  char buffer[100];
  EXPECT_EQ(istream_read_len(in, buffer, sizeof buffer), 3u);
  EXPECT_EQ(std::string(buffer, 3), "abc");
  EXPECT_EQ(pair.far.descriptor, -1);
  EXPECT_STREQ(socket_strerror(&pair.far), strerror(ENOTCONN));
  EXPECT_EQ(istream_read_len(in, buffer, sizeof buffer), 0u);
  istream_destroy(in);

  unix_pair cut;
  cut.put(length_word(4) + "ab", true);
  EXPECT_EQ(socket_istream_chunked(&cut.far), nullptr);
  EXPECT_EQ(cut.far.chunked_in, nullptr);
  EXPECT_STREQ(socket_strerror(&cut.far), strerror(ENOTCONN));
  EXPECT_EQ(socket_istream_chunked(&cut.far), nullptr);
  EXPECT_STREQ(socket_strerror(&cut.far), strerror(EINVAL));
}

TEST(ChunkedRelay, ForwardsTheStreamByteForByteAndNamesTheFailingSide) {
  unix_pair source, destination;
  std::string wire = length_word(10000) + pattern(10000, 13) + length_word(1) + "z" + length_word(0);
  source.put(wire + "after");
  EXPECT_EQ(socket_stream_attach_chunked(&source.far, &destination.near), 0);
  EXPECT_EQ(destination.on_the_wire(), wire);
  EXPECT_EQ(source.on_the_wire(), "after");  // nothing past the end marker

  unix_pair cut;
  cut.put(length_word(5) + "abc", true);
  EXPECT_TRUE(fails_with(socket_stream_attach_chunked(&cut.far, &destination.near), &cut.far, ENOTCONN));
  EXPECT_EQ(destination.on_the_wire(), length_word(5));
  source.put(length_word(1) + "q" + length_word(0));
  socket_close(&destination.near);
  EXPECT_TRUE(fails_with(socket_stream_attach_chunked(&source.far, &destination.near), &destination.near, EINVAL));
}

}  // namespace

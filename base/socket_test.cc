#include "base/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "base/sockpoll.h"
#include "tests/support/daemon.h"
#include "tests/support/scratch_dir.h"

namespace {

// Sends to a vanished peer must fail with EPIPE, not end the test binary.
const runtime_sighandler previous_sigpipe = runtime_startup();

// -1 with the platform text of `error` in the record, or in the family error for null.
testing::AssertionResult fails_with(int result, const socket_record* sock, int error) {
  const char* reason = socket_strerror(sock);
  if (result == -1 && reason != nullptr && reason == std::string(strerror(error))) return testing::AssertionSuccess();
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

int open_descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

const char* unix_path(const socket_address& address) {
  return reinterpret_cast<const sockaddr_un*>(address.storage)->sun_path;
}

// A unix datagram socket bound to a path.
struct unix_datagram {
  socket_address address{};
  socket_record sock{};
  explicit unix_datagram(const char* path) {
    EXPECT_EQ(socket_address_unix(path, &address), 0);
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

using SocketOpen = InScratchDir;
using SocketDatagram = InScratchDir;
using SocketPassing = InScratchDir;

TEST(SocketAddress, UnixPathsUpTo107BytesAndNumericHostsOnly) {
  socket_address address{};
  std::string longest(107, 'p');
  ASSERT_EQ(socket_address_unix(longest.c_str(), &address), 0);
  EXPECT_EQ(unix_path(address), longest);
  EXPECT_TRUE(fails_with(socket_address_unix(std::string(108, 'p').c_str(), &address), nullptr, ENAMETOOLONG));
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "8080", &address), 0);
  EXPECT_EQ(ntohs(reinterpret_cast<const sockaddr_in*>(address.storage)->sin_port), 8080);
  ASSERT_EQ(socket_address_udp("::1", "8080", &address), 0);
  EXPECT_EQ(socket_address_tcp("localhost", "8080", &address), -1);
  EXPECT_STREQ(socket_strerror(nullptr), gai_strerror(EAI_NONAME));
}

TEST_F(SocketOpen, FailuresGoToTheFamilyErrorWithNothingLeftOpen) {
  socket_address address{};
  socket_record sock{}, listener{};
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
  EXPECT_TRUE(fails_with(socket_open(&address, 0, 0, &sock), nullptr, EINVAL));
  // A port that was just released has no listener: the connect is refused.
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  std::string port = std::to_string(e2e::port_of(listener.descriptor));
  socket_close(&listener);
  ASSERT_EQ(socket_address_tcp("127.0.0.1", port.c_str(), &address), 0);
  int before = open_descriptors();
  EXPECT_TRUE(fails_with(socket_open(&address, 0, 1, &sock), nullptr, ECONNREFUSED));
  EXPECT_EQ(open_descriptors(), before);

  // Whatever an earlier run left at a socket's path, a socket file or even a plain file, is replaced.
  write_file("plain", "x");
  unix_datagram again("plain");
  EXPECT_EQ(fields(again.sock), "unix datagram cloexec");
}

TEST(SocketRecord, EveryDescriptorIsCloseOnExecAndTheRecordFilled) {
  socket_address address{};
  socket_record listener{}, client{}, server{};
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  ASSERT_EQ(socket_address_tcp("127.0.0.1", std::to_string(e2e::port_of(listener.descriptor)).c_str(), &address), 0);
  ASSERT_EQ(socket_open(&address, 0, 1, &client), 0);
  ASSERT_EQ(socket_accept(&listener, 1, &server), 0);
  EXPECT_EQ(fields(client), "inet stream cloexec");
  EXPECT_EQ(fields(server), "inet stream cloexec");
  EXPECT_EQ(listener.descriptor, -1) << "the one-shot listener is closed";
  socket_close(&client);
  socket_close(&server);

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
}

TEST(SocketFrame, PayloadGoesOutBehindABigEndianLengthOf1To65535) {
  unix_pair pair;
  ASSERT_EQ(send_text(&pair.near, "hello"), 0);
  EXPECT_EQ(pair.on_the_wire(), e2e::frame("hello"));
  std::string largest = e2e::patterned_image(65535);
  ASSERT_EQ(send_text(&pair.near, largest), 0);
  EXPECT_EQ(recv_text(&pair.far), largest);
  // Refusals write nothing: the next frame on the wire is the one sent after.
  EXPECT_TRUE(fails_with(send_text(&pair.near, std::string(65536, 'x')), &pair.near, EMSGSIZE));
  EXPECT_TRUE(fails_with(send_text(&pair.near, ""), &pair.near, EINVAL));
  ASSERT_EQ(send_text(&pair.near, "next"), 0);
  EXPECT_EQ(recv_text(&pair.far), "next");
  // A vanished peer is a failure of the send, not the end of the sender.
  socket_close(&pair.far);
  EXPECT_TRUE(fails_with(send_text(&pair.near, "reply"), &pair.near, EPIPE));
}

TEST(SocketFrame, BrokenAndEndingStreams) {
  const struct { std::string wire; bool close; int error; const char* left; } cases[] = {
      {"", true, 0, ""},  // peer gone before a frame: an empty message, socket dead
      {e2e::frame(""), false, 0, ""},  // a zero length word ends the stream
      {std::string("\0\0", 2), true, EIO, ""},  // the stream ends inside the length word
      {std::string("\0\x01\0\0", 4) + "ab", true, EMSGSIZE, "ab"},  // refused before the payload
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

TEST_F(SocketDatagram, OneDatagramIsOneMessageWithItsSource) {
  unix_datagram node("node"), worker("worker");
  socket_address inet{}, source{};
  ASSERT_EQ(socket_address_udp("127.0.0.1", "9", &inet), 0);
  EXPECT_TRUE(fails_with(send_text(&node.sock, "set name"), &node.sock, EDESTADDRREQ));
  EXPECT_TRUE(fails_with(send_text(&node.sock, "set name", &inet), &node.sock, EPFNOSUPPORT));
  ASSERT_EQ(send_text(&node.sock, "set name", &worker.address), 0);
  EXPECT_EQ(recv_text(&worker.sock, &source), "set name");  // no length word on a datagram
  EXPECT_STREQ(unix_path(source), "node");

  // A datagram longer than any message, as only a raw send makes one, is cut to the largest.
  std::string oversized(70000, 'd');
  uint64_t size = oversized.size();
  ASSERT_EQ(socket_raw_sendto(&node.sock, &worker.address, oversized.data(), &size), 0);
  EXPECT_EQ(recv_text(&worker.sock), oversized.substr(0, 65535));
}

// On a datagram and on a stream frame, the descriptor arrives as a new
// close-on-exec record of the same connection, and a message without one says so.
TEST_F(SocketPassing, DatagramsAndFramesCarryOneCloseOnExecDescriptor) {
  unix_datagram node("node"), worker("worker");
  unix_pair frames, carried;
  const struct { socket_record *from, *to; const socket_address* destination; } ways[] = {
      {&node.sock, &worker.sock, &worker.address}, {&frames.near, &frames.far, nullptr}};
  for (const auto& way : ways) {
    ASSERT_EQ(send_text(way.from, "sockpass", way.destination, &carried.near), 0);
    ASSERT_EQ(send_text(way.from, "shutdown", way.destination), 0);
    for (int expected : {0, -1}) {
      socket_message received{};
      socket_record passed{};
      int flag = 7;
      ASSERT_EQ(socket_msg_recv_dup(way.to, nullptr, &received, &flag, &passed), 0);
      EXPECT_EQ(received.size, 8u);
      ASSERT_EQ(flag, expected);
      if (expected == -1) continue;
      EXPECT_NE(passed.descriptor, carried.near.descriptor);
      EXPECT_EQ(fields(passed), "unix stream cloexec");
      ASSERT_EQ(send_text(&passed, "from the stack"), 0);
      EXPECT_EQ(recv_text(&carried.far), "from the stack");
      socket_close(&passed);
    }
  }
  // A receiver that takes no descriptor is not left holding one.
  int before = open_descriptors();
  ASSERT_EQ(send_text(&frames.near, "unwanted", nullptr, &carried.near), 0);
  EXPECT_EQ(recv_text(&frames.far), "unwanted");
  EXPECT_EQ(open_descriptors(), before);
}

TEST(SocketRecord, CloseSparesDescriptorZeroAndClosedRecordsRefuseEverything) {
  socket_record closed{};
  closed.descriptor = 0;
  socket_close(&closed);
  EXPECT_EQ(closed.descriptor, 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);

  // A peer that went away: raw end of stream, then the record is closed.
  unix_pair pair;
  socket_close(&pair.near);
  socket_close(&pair.near);
  char buffer[4];
  uint64_t size = sizeof buffer;
  ASSERT_EQ(socket_raw_recv(&pair.far, buffer, &size), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(socket_is_alive(&pair.far), 0);
  EXPECT_EQ(pair.far.descriptor, -1);

  socket_message message{"x", 1};
  std::function<int()> calls[] = {[&] { return socket_msg_send(&pair.far, nullptr, &message); },
                                  [&] { return socket_msg_recv(&pair.far, nullptr, &message); },
                                  [&] { return socket_raw_recv(&pair.far, buffer, &size); },
                                  [&] { return socket_raw_send(&pair.far, buffer, &size); },
                                  [&] { return socket_accept(&pair.far, 0, &closed); },
                                  [&] { return socket_inherit(&pair.far, 1); }};
  for (const auto& call : calls) {
    pair.far.error = nullptr;
    EXPECT_TRUE(fails_with(call(), &pair.far, EINVAL));
  }
}

TEST(Sockpoll, WaitingInputIsSeenAndDetachedSlotsReused) {
  sockpoll* set = sockpoll_create();
  unix_pair a, b, c, never;
  EXPECT_EQ(sockpoll_wait(set, 0), 0) << "an empty set times out at once";
  sockpoll_attach(set, &a.far);
  sockpoll_attach(set, &a.far);  // already in the set: nothing happens
  sockpoll_attach(set, &b.far);
  EXPECT_EQ(set->count, 2u);
  EXPECT_EQ(b.far.poll_slot, 1u);
  EXPECT_EQ(sockpoll_can_read(set, &never.far), -1) << "never attached";
  EXPECT_EQ(sockpoll_wait(set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(set, &a.far), 0);

  a.put("x");
  EXPECT_EQ(sockpoll_wait(set, 1000), 1);
  EXPECT_EQ(sockpoll_can_read(set, &a.far), 1);
  EXPECT_EQ(sockpoll_can_read(set, &b.far), 0);
  // Once detached, a free slot reports nothing, even across a wait, and is taken next.
  sockpoll_detach(set, &a.far);
  EXPECT_EQ(sockpoll_wait(set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(set, &a.far), 0);
  sockpoll_attach(set, &c.far);
  EXPECT_EQ(c.far.poll_slot, 0u);
  EXPECT_EQ(set->count, 2u);

  // A signal (handled without SA_RESTART, as the daemon's stop handlers are)
  // ends the wait at once with 0, so the caller sees its stop flag.
  struct sigaction action{}, previous{};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  itimerval timer{{0, 0}, {0, 50 * 1000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
  int64_t started = runtime_getclock();
  EXPECT_EQ(sockpoll_wait(set, 5000), 0);
  EXPECT_LT(runtime_getclock() - started, 2500);
  sigaction(SIGALRM, &previous, nullptr);
  sockpoll_destroy(set);
}

// A chunked stream written on one connection, relayed to a second and read
// from there: one chunk per write, sent as the 4096-byte staging fills, and
// an end marker; the relay copies it byte for byte and stops at the marker.
TEST(ChunkedStreams, WrittenRelayedAndReadBackByteForByte) {
  unix_pair first, second;
  ostream* out = socket_ostream_chunked(&first.near);
  std::string data = e2e::patterned_image(5000);
  ASSERT_EQ(ostream_write_len(out, data.data(), data.size()), 5000u);
  EXPECT_EQ(ostream_write_len(out, "", 0), 0u);  // never an empty chunk
  EXPECT_EQ(ostream_write_string(out, "abc"), 3u);
  EXPECT_EQ(socket_ostream_zeroterm(&first.near), nullptr) << "one output stream per socket";
  ostream_destroy(out);
  first.put("after");
  EXPECT_EQ(socket_stream_attach_chunked(&first.far, &second.near), 0);
  const std::string chunked = e2e::frame(data) + e2e::frame("abc") + e2e::frame("");
  EXPECT_EQ(second.on_the_wire(), chunked);
  EXPECT_EQ(first.on_the_wire(), "after") << "nothing past the end marker";

  second.put(chunked + e2e::frame("z"));
  istream* in = socket_istream_chunked(&second.far);
  EXPECT_EQ(socket_istream_chunked(&second.far), nullptr) << "one input stream per socket";
  std::string read;
  char buffer[5003];
  for (uint64_t want : {3u, 0u, 700u, 5003u, 10u}) read.append(buffer, istream_read_len(in, buffer, want));
  EXPECT_EQ(read, data + "abc");
  istream_destroy(in);
  EXPECT_EQ(second.on_the_wire(), e2e::frame("z")) << "what follows the stream stays in the socket";

  out = socket_ostream_zeroterm(&first.near);
  EXPECT_EQ(ostream_write_string(out, "hi"), 2u);
  ostream_destroy(out);
  EXPECT_EQ(first.on_the_wire(), std::string("hi\0", 3));
}

}  // namespace

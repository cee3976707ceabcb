#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "base/socket.h"

namespace {

// Writes to a closed peer must fail with EPIPE, not end the test binary.
const runtime_sighandler previous_sigpipe = runtime_startup();

// Both ends of a connected unix stream pair, adopted as socket records.
struct stream_pair {
  socket_record near{}, far{};
  stream_pair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(socket_load(ends[0], &near), 0);
    EXPECT_EQ(socket_load(ends[1], &far), 0);
  }
  ~stream_pair() {
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

std::string header(uint32_t length) {
  return {static_cast<char>(length >> 24), static_cast<char>(length >> 16), static_cast<char>(length >> 8),
          static_cast<char>(length)};
}

std::string pattern(size_t size, int step) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * step + 1);
  return data;
}

TEST(ChunkedWriter, SmallWritesWaitLargeOnesGoOutAsStagingFills) {
  stream_pair pair;
  ostream* out = socket_ostream_chunked(&pair.near);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(pair.near.chunked_out, out);
  std::string data = pattern(5000, 7);
  ASSERT_EQ(ostream_write_len(out, data.data(), data.size()), 5000u);
  EXPECT_EQ(pair.on_the_wire(), header(5000) + data.substr(0, 4092));
  EXPECT_EQ(ostream_write_string(out, "abc"), 3u);
  EXPECT_EQ(ostream_write_len(out, "", 0), 0u);  // never an empty chunk
  EXPECT_EQ(ostream_write_len(out, "de", 2), 2u);
  EXPECT_EQ(pair.on_the_wire(), "");
  ostream_destroy(out);
  EXPECT_EQ(pair.near.chunked_out, nullptr);
  EXPECT_EQ(pair.on_the_wire(), data.substr(4092) + header(3) + "abc" + header(2) + "de" + header(0));

  // One output stream per socket; the next may come once the first is gone.
  out = socket_ostream_chunked(&pair.near);
  EXPECT_EQ(socket_ostream_chunked(&pair.near), nullptr);
  EXPECT_EQ(socket_ostream_zeroterm(&pair.near), nullptr);
  ostream_destroy(out);
  out = socket_ostream_zeroterm(&pair.near);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(ostream_write_string(out, "hi"), 2u);
  ostream_destroy(out);
  EXPECT_EQ(pair.on_the_wire(), header(0) + std::string("hi\0", 3));
}

TEST(ChunkedWriter, FailedSendReturnsZeroWithTheReason) {
  stream_pair pair;
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
  stream_pair pair;
  std::string data = pattern(5000, 7);
  pair.put(header(1) + data.substr(0, 1) + header(4999) + data.substr(1) + header(0));
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
  pair.put(header(2) + "ab" + header(3) + "cde" + header(0));
  in = socket_istream_chunked(&pair.far);
  EXPECT_EQ(istream_read_len(in, buffer, 1), 1u);
  istream_destroy(in);
  EXPECT_EQ(pair.on_the_wire(), header(3) + "cde" + header(0));
}

TEST(ChunkedReader, PeerClosingInsideAChunkOrBeforeTheFirst) {
  stream_pair pair;
  pair.put(header(3) + "abc" + header(10) + "xyz", true);
  istream* in = socket_istream_chunked(&pair.far);
  ASSERT_NE(in, nullptr);
  char buffer[100];
  EXPECT_EQ(istream_read_len(in, buffer, sizeof buffer), 3u);
  EXPECT_EQ(std::string(buffer, 3), "abc");
  EXPECT_EQ(pair.far.descriptor, -1);
  EXPECT_STREQ(socket_strerror(&pair.far), strerror(ENOTCONN));
  EXPECT_EQ(istream_read_len(in, buffer, sizeof buffer), 0u);
  istream_destroy(in);

  stream_pair cut;
  cut.put(header(4) + "ab", true);
  EXPECT_EQ(socket_istream_chunked(&cut.far), nullptr);
  EXPECT_EQ(cut.far.chunked_in, nullptr);
  EXPECT_STREQ(socket_strerror(&cut.far), strerror(ENOTCONN));
  EXPECT_EQ(socket_istream_chunked(&cut.far), nullptr);
  EXPECT_STREQ(socket_strerror(&cut.far), strerror(EINVAL));
}

TEST(ChunkedRelay, ForwardsTheStreamByteForByteAndNamesTheFailingSide) {
  stream_pair source, destination;
  std::string wire = header(10000) + pattern(10000, 13) + header(1) + "z" + header(0);
  source.put(wire + "after");
  EXPECT_EQ(socket_stream_attach_chunked(&source.far, &destination.near), 0);
  EXPECT_EQ(destination.on_the_wire(), wire);
  EXPECT_EQ(source.on_the_wire(), "after");  // nothing past the end marker

  stream_pair cut;
  cut.put(header(5) + "abc", true);
  EXPECT_EQ(socket_stream_attach_chunked(&cut.far, &destination.near), -1);
  EXPECT_STREQ(socket_strerror(&cut.far), strerror(ENOTCONN));
  EXPECT_EQ(destination.on_the_wire(), header(5));
  source.put(header(1) + "q" + header(0));
  socket_close(&destination.near);
  EXPECT_EQ(socket_stream_attach_chunked(&source.far, &destination.near), -1);
  EXPECT_STREQ(socket_strerror(&destination.near), strerror(EINVAL));
}

}  // namespace

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "base/socket.h"

namespace {

// Writes to a closed peer must fail with EPIPE, not end the test binary.
const runtime_sighandler previous_sigpipe = runtime_startup();

std::string bytes(const char* text, size_t size) { return std::string(text, size); }

// Both ends of a connected unix stream pair, adopted as socket records.
struct stream_pair {
  socket_record near{};
  socket_record far{};
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
};

// Everything the peer has put on the wire so far, without waiting: a unix
// stream socket queues the bytes before the sender's send returns.
std::string on_the_wire(const socket_record& sock) {
  std::string taken;
  char buffer[8192];
  for (;;) {
    ssize_t got = recv(sock.descriptor, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got <= 0) break;
    taken.append(buffer, static_cast<size_t>(got));
  }
  return taken;
}

void put_raw(socket_record* sock, const std::string& wire) {
  uint64_t size = wire.size();
  ASSERT_EQ(socket_raw_send(sock, wire.data(), &size), 0);
  ASSERT_EQ(size, wire.size());
}

std::string header(uint32_t length) {
  char word[4] = {static_cast<char>(length >> 24), static_cast<char>(length >> 16),
                  static_cast<char>(length >> 8), static_cast<char>(length)};
  return std::string(word, 4);
}

TEST(ChunkedWriter, SmallWritesWaitForTheStreamsEnd) {
  stream_pair pair;
  ostream* out = socket_ostream_chunked(&pair.near);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(pair.near.chunked_out, out);
  EXPECT_EQ(ostream_write_string(out, "abc"), 3u);
  EXPECT_EQ(ostream_write_len(out, "", 0), 0u);  // never an empty chunk
  EXPECT_EQ(ostream_write_len(out, "de", 2), 2u);
  EXPECT_EQ(on_the_wire(pair.far), "");
  ostream_destroy(out);
  EXPECT_EQ(pair.near.chunked_out, nullptr);
  EXPECT_EQ(on_the_wire(pair.far), bytes("\0\0\0\x03" "abc" "\0\0\0\x02" "de" "\0\0\0\0", 17));
}

TEST(ChunkedWriter, LargeWriteIsOneChunkSentAsStagingFills) {
  stream_pair pair;
  std::string data(5000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 26);
  ostream* out = socket_ostream_chunked(&pair.near);
  ASSERT_EQ(ostream_write_len(out, data.data(), data.size()), 5000u);
  std::string first = on_the_wire(pair.far);
  EXPECT_EQ(first, bytes("\0\0\x13\x88", 4) + data.substr(0, 4092));
  ostream_destroy(out);
  EXPECT_EQ(on_the_wire(pair.far), data.substr(4092) + header(0));
}

TEST(ChunkedWriter, FailedSendReturnsZeroWithTheReason) {
  stream_pair pair;
  socket_close(&pair.far);
  std::string data(5000, 'x');
  ostream* out = socket_ostream_chunked(&pair.near);
  EXPECT_EQ(ostream_write_len(out, data.data(), data.size()), 0u);
  EXPECT_STREQ(socket_strerror(&pair.near), strerror(EPIPE));
  ostream_destroy(out);

  // The zero-terminated writer counts what it took before the send failed.
  out = socket_ostream_zeroterm(&pair.near);
  EXPECT_EQ(ostream_write_len(out, data.data(), data.size()), 4096u);
  EXPECT_STREQ(socket_strerror(&pair.near), strerror(EPIPE));
  ostream_destroy(out);
}

TEST(SocketOutputStream, OneOutputStreamPerSocket) {
  stream_pair pair;
  ostream* chunked = socket_ostream_chunked(&pair.near);
  ASSERT_NE(chunked, nullptr);
  EXPECT_EQ(socket_ostream_chunked(&pair.near), nullptr);
  EXPECT_EQ(socket_ostream_zeroterm(&pair.near), nullptr);
  ostream_destroy(chunked);

  ostream* zeroterm = socket_ostream_zeroterm(&pair.near);
  ASSERT_NE(zeroterm, nullptr);
  EXPECT_EQ(ostream_write_string(zeroterm, "hi"), 2u);
  EXPECT_EQ(on_the_wire(pair.far), header(0));  // the first stream's end marker
  ostream_destroy(zeroterm);
  EXPECT_EQ(on_the_wire(pair.far), bytes("hi\0", 3));
}

TEST(ChunkedReader, ReturnsTheBytesInAnySplitOfReads) {
  stream_pair pair;
  std::string data(5000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  ostream* out = socket_ostream_chunked(&pair.near);
  ostream_write_len(out, data.data(), 1);
  ostream_write_len(out, data.data() + 1, data.size() - 1);
  ostream_destroy(out);

  istream* in = socket_istream_chunked(&pair.far);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(pair.far.chunked_in, in);
  EXPECT_EQ(socket_istream_chunked(&pair.far), nullptr);  // one reader per socket
  std::string read;
  char buffer[5000];
  for (uint64_t want : {3u, 0u, 700u, 5000u}) {
    uint64_t got = istream_read_len(in, buffer, want);
    read.append(buffer, got);
  }
  EXPECT_EQ(read, data);
  EXPECT_EQ(istream_read_len(in, buffer, 10), 0u);
  EXPECT_EQ(istream_read_len(in, buffer, 10), 0u);
  istream_destroy(in);
  EXPECT_EQ(pair.far.chunked_in, nullptr);
}

TEST(ChunkedReader, UnreadChunksStayInTheSocket) {
  stream_pair pair;
  put_raw(&pair.near, header(2) + "ab" + header(3) + "cde" + header(0));
  istream* in = socket_istream_chunked(&pair.far);
  ASSERT_NE(in, nullptr);
  char buffer[1];
  EXPECT_EQ(istream_read_len(in, buffer, 1), 1u);
  istream_destroy(in);  // half of the first chunk is dropped with the stream
  EXPECT_EQ(on_the_wire(pair.far), header(3) + "cde" + header(0));
}

TEST(ChunkedReader, PeerClosingInsideAChunk) {
  stream_pair pair;
  put_raw(&pair.near, header(3) + "abc" + header(10) + "xyz");
  socket_close(&pair.near);
  istream* in = socket_istream_chunked(&pair.far);
  ASSERT_NE(in, nullptr);
  char buffer[100];
  EXPECT_EQ(istream_read_len(in, buffer, sizeof buffer), 3u);
  EXPECT_EQ(std::string(buffer, 3), "abc");
  EXPECT_EQ(pair.far.descriptor, -1);
  EXPECT_STREQ(socket_strerror(&pair.far), strerror(ENOTCONN));
  EXPECT_EQ(istream_read_len(in, buffer, sizeof buffer), 0u);
  istream_destroy(in);
}

TEST(ChunkedReader, NoStreamWithoutAFirstChunk) {
  stream_pair pair;
  put_raw(&pair.near, header(4) + "ab");
  socket_close(&pair.near);
  EXPECT_EQ(socket_istream_chunked(&pair.far), nullptr);
  EXPECT_EQ(pair.far.chunked_in, nullptr);
  EXPECT_STREQ(socket_strerror(&pair.far), strerror(ENOTCONN));
  EXPECT_EQ(socket_istream_chunked(&pair.far), nullptr);
  EXPECT_STREQ(socket_strerror(&pair.far), strerror(EINVAL));
}

TEST(ChunkedRelay, ForwardsTheStreamByteForByte) {
  stream_pair source, destination;
  std::string chunk(10000, '\0');
  for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 13 + 1);
  std::string wire = header(10000) + chunk + header(1) + "z" + header(0);
  put_raw(&source.near, wire + "after");

  EXPECT_EQ(socket_stream_attach_chunked(&source.far, &destination.near), 0);
  EXPECT_EQ(on_the_wire(destination.far), wire);
  EXPECT_EQ(on_the_wire(source.far), "after");  // nothing past the end marker
}

TEST(ChunkedRelay, FailuresNameTheFailingSide) {
  stream_pair source, destination;
  put_raw(&source.near, header(5) + "abc");
  socket_close(&source.near);
  EXPECT_EQ(socket_stream_attach_chunked(&source.far, &destination.near), -1);
  EXPECT_STREQ(socket_strerror(&source.far), strerror(ENOTCONN));
  EXPECT_EQ(on_the_wire(destination.far), header(5));

  stream_pair live;
  put_raw(&live.near, header(1) + "q" + header(0));
  socket_close(&destination.near);
  EXPECT_EQ(socket_stream_attach_chunked(&live.far, &destination.near), -1);
  EXPECT_STREQ(socket_strerror(&destination.near), strerror(EINVAL));
}

}  // namespace

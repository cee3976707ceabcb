// The request handler in this process, on loopback TCP, over the real stack
// manager in a temporary working directory: what a client sees, and what the
// disk keeps, when an upload arrives in pieces, too slowly, or onto a full
// disk. The time limits are shrunk so that no case waits long.
#include "appsrv/handler.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "stackman/stackman.h"
#include "tests/support/daemon.h"
#include "tests/support/message_testing.h"

using namespace e2e;

namespace {

// Every step of a client: bytes to send, then a pause.
struct Step { std::string bytes; int pause_ms = 0; };
using Steps = std::vector<Step>;

// The same bytes in `count` steps `pause_ms` apart.
Steps trickle(const std::string& bytes, size_t count, int pause_ms) {
  Steps steps;
  for (size_t i = 0, size = bytes.size() / count; i < count; ++i)
    steps.push_back({bytes.substr(i * size, i + 1 < count ? size : std::string::npos), pause_ms});
  return steps;
}

class HandlerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(dir_.path(""));
    stackman_open("./runenv", "./stacks", "./data");
    socket_address address{};
    ASSERT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
    ASSERT_EQ(socket_open(&address, 1, 1, &listener_), 0);
    port_ = port_of(listener_.descriptor);
    appsrv_receive_limits = {1000, 1000, 2000, 64 << 10};
  }
  void TearDown() override {
    socket_close(&listener_);
    stackman_reset();
  }

  // Serves one connection as the main loop does while a client takes its
  // steps (stopping early once an answer is there), and gives what the client
  // read back: a reply, the new stack's line, or "" when nothing came.
  std::string serve(const Steps& steps) {
    std::string answer;
    std::thread client([&] {
      Connection connection(port_);
      for (const Step& step : steps) {
        pollfd answered{connection.fd(), POLLIN, 0};
        if (poll(&answered, 1, 0) == 1 || !connection.send(step.bytes)) break;
        usleep(step.pause_ms * 1000);
      }
      char first = 0;
      if (recv(connection.fd(), &first, 1, MSG_PEEK) == 1)
        answer = first == 'd' ? connection.line() : connection.reply();
    });
    socket_record connection{};
    EXPECT_EQ(socket_accept(&listener_, 0, &connection), 0);
    TestArena request_arena, reply_arena;
    int64_t started = now_ms();
    handle_request(&connection, request_arena, reply_arena);
    handled_ms_ = now_ms() - started;
    socket_close(&connection);
    client.join();
    return answer;
  }
  std::string upload(const std::string& name, const std::string& image) { return serve({{upload_bytes(name, image)}}); }
  static Names left_behind() {
    Names names = entries("data"), stacks = entries("stacks");
    names.insert(names.end(), stacks.begin(), stacks.end());
    return names;
  }

  Daemon dir_;  // never started
  socket_record listener_{};
  uint16_t port_ = 0;
  int64_t handled_ms_ = 0;
};

}  // namespace

TEST_F(HandlerTest, TheStoredImageIsTheUploadByteForByte) {
  for (size_t size : {size_t{0}, size_t{1}, appsrv_image_chunk, appsrv_image_chunk + 1, 3 * appsrv_image_chunk + 5}) {
    const std::string name = "size " + std::to_string(size), image = patterned_image(size);
    ASSERT_EQ(upload(name, image), "deployed " + name);
    EXPECT_EQ(read_file("data/" + std::string(stackman_get(name.c_str())->key) + "/serv/image"), image) << size;
  }
}

TEST_F(HandlerTest, AFullDiskFailsTheUploadAfterTheNameChecksAndLeavesNothing) {
  ASSERT_EQ(upload("taken", "t"), "deployed taken");
  const Names kept = left_behind();
  // The disk fills up in the middle of the second piece.
  rlimit saved{}, limited{};
  getrlimit(RLIMIT_FSIZE, &saved);
  limited = {appsrv_image_chunk * 3 / 2, saved.rlim_max};
  sighandler_t handler = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &limited);
  const std::string image = patterned_image(3 * appsrv_image_chunk);
  const struct { const char *name, *reason; } cases[] = {
      {"new", "store image"}, {"", "invalid name"}, {"taken", "duplicate name"}};
  for (const auto& c : cases) {
    EXPECT_EQ(upload(c.name, image), std::string("failure: ") + c.reason);
    EXPECT_EQ(left_behind(), kept) << c.name;
  }
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, handler);
}

TEST_F(HandlerTest, SlowClientsAreCutOffAndLeaveNothing) {
  const std::string frame_bytes = frame(encode_upload("slow", 640 << 10)), image = patterned_image(640 << 10);
  const std::string request = frame_bytes + image;
  // Limits: the frame within 1 s, no receive silent for 1 s, and 64 KiB in
  // every 2 s of the image.
  const struct { const char* what; Steps steps; std::string answer; int64_t at_least_ms; } cases[] = {
      {"frame a byte at a time", trickle(frame_bytes, frame_bytes.size(), 40), "", 1000},
      {"silent mid-image", {{frame_bytes + image.substr(0, 100000), 3000}, {image.substr(100000)}},
       "failure: image could not be loaded", 1000},
      {"a KiB every 50 ms", trickle(request, request.size() >> 10, 50), "failure: image could not be loaded", 2000},
      // 16 KiB every 100 ms: each window's due is in after 400 ms, and the
      // image takes longer than two windows.
      {"at pace", trickle(request, 40, 100), "deployed slow", 3500},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(serve(c.steps), c.answer) << c.what;
    // Receive time-outs run in scheduler ticks: one may end a few ms early.
    EXPECT_GE(handled_ms_, c.at_least_ms - 10) << c.what;
    EXPECT_LT(handled_ms_, c.at_least_ms + 3000) << c.what;
  }
  ASSERT_NE(stackman_get("slow"), nullptr);
  EXPECT_EQ(left_behind(), (Names{stackman_get("slow")->key, stackman_get("slow")->key}));
}

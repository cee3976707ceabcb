// The whole daemon over its real protocol: requests from a client built on
// the message modules, stacks started from the test bootstrap.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "tests/support/daemon.h"

using namespace e2e;

namespace {

class DaemonTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.start()) << daemon_.err(); }
  std::string upload(const std::string& name, const std::string& image) {
    return greeting(daemon_.port(), upload_bytes(name, image));
  }
  Names listed() { return list(daemon_.port()); }
  Daemon daemon_;
};

}  // namespace

TEST_F(DaemonTest, UploadListSelectRenameDelete) {
  EXPECT_EQ(listed(), Names{});
  const std::string image = patterned_image(300000);
  EXPECT_EQ(upload("app", image), "deployed app") << daemon_.err();
  for (const char* name : {"beta", "Zeta"}) EXPECT_EQ(upload(name, "x"), std::string("deployed ") + name);
  const std::string key = daemon_.key_of("app"), doomed = daemon_.key_of("beta");
  ASSERT_EQ(key.size(), 64u);
  EXPECT_EQ(read_file(daemon_.path("data/" + key + "/serv/image")), image) << "the upload arrives byte for byte";
  EXPECT_EQ(listed(), (Names{"Zeta", "app", "beta"})) << "sorted byte-wise, not in the order of the uploads";

  // The stack needs a moment to bind its control socket after deploying.
  ASSERT_TRUE(daemon_.wait_ready("app"));
  EXPECT_EQ(greeting(daemon_.port(), frame(encode_select("app"))), "hello app") << "answered by the stack";
  EXPECT_EQ(greeting(daemon_.port(), frame(encode_rename("app", "b"))), "hello b");
  EXPECT_EQ(read_file(daemon_.path("data/" + key + "/serv/name")), "b");
  EXPECT_EQ(listed(), (Names{"Zeta", "b", "beta"}));

  EXPECT_EQ(ask(daemon_.port(), encode_delete("beta")), "success");
  EXPECT_FALSE(exists(daemon_.path("data/" + doomed)) || exists(daemon_.path("stacks/" + doomed)));
  EXPECT_EQ(listed(), (Names{"Zeta", "b"}));

  // Nothing hidden is left behind: a store and a stack path under each key,
  // and in a store only what a deployment and a rename write.
  Names keys = {key, daemon_.key_of("Zeta")};
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(entries(daemon_.path("data")), keys);
  EXPECT_EQ(entries(daemon_.path("stacks")), keys);
  EXPECT_EQ(entries(daemon_.path("data/" + key)), Names{"serv"});
  EXPECT_EQ(entries(daemon_.path("data/" + key + "/serv")), (Names{"deployed", "image", "name"}));
}

TEST_F(DaemonTest, FailuresComeInTheirOrderOfChecks) {
  EXPECT_EQ(upload("taken", "1"), "deployed taken");
  EXPECT_EQ(upload("other", "2"), "deployed other");
  const struct {
    std::string bytes, reason;
  } cases[] = {
      {frame(encode_delete("missing")), "unknown name"},
      {frame(encode_delete("")), "invalid name"},
      {frame(encode_select("missing")), "unknown name"},
      {frame(encode_select("a\nb")), "invalid name"},
      {frame(encode_rename("a\tb", "c\td")), "invalid old name"},
      {frame(encode_rename("taken", std::string(1024, 'x'))), "invalid new name"},
      {frame(encode_rename("missing", "taken")), "unknown name"},
      {frame(encode_rename("taken", "taken")), "duplicate name"},
      {frame(encode_rename("taken", "other")), "duplicate name"},
      // The whole image is read before the name is checked; one too large is refused unread.
      {upload_bytes("taken", patterned_image(100000)), "duplicate name"},
      {upload_bytes("", patterned_image(100000)), "invalid name"},
      {frame(encode_upload("huge", int64_t{1} << 60)) + patterned_image(4096), "image too large"},
  };
  for (const auto& c : cases) {
    Connection connection(daemon_.port());
    connection.send(c.bytes);
    EXPECT_EQ(connection.reply(), "failure: " + c.reason);
  }
  EXPECT_EQ(listed(), (Names{"other", "taken"}));
}

TEST_F(DaemonTest, MalformedRequestsGetNoReplyAndChangeNothing) {
  EXPECT_EQ(upload("keep", "k"), "deployed keep");
  std::string list_request = encode_list(), wrong_fingerprint = list_request, tag_five = list_request;
  wrong_fingerprint[0] = 'D';
  tag_five[67] = 5;
  for (const std::string& bytes : {
           frame(wrong_fingerprint),
           frame(list_request + "x"),  // a byte too many
           frame(tag_five),
           frame(list_request.substr(0, 63)),
           std::string("\0\0\0\0", 4),  // an empty frame
           std::string("\0\x01\0\0", 4) + list_request,  // a length word above the frame limit
           std::string("\0\0", 2),  // the stream ends inside the length word
           frame(encode_delete("keep")).substr(0, 50),
           upload_bytes("partial", patterned_image(1000)).substr(0, 600),  // an upload cut short
           std::string(),  // a client that closes at once
       }) {
    Connection connection(daemon_.port());
    connection.send(bytes);
    shutdown(connection.fd(), SHUT_WR);
    EXPECT_TRUE(connection.closed_without_reply()) << bytes.size();
  }
  EXPECT_EQ(listed(), Names{"keep"});
  EXPECT_EQ(daemon_.key_of("partial"), "");
}

TEST_F(DaemonTest, SelectingAnIdleStackStartsItAgain) {
  daemon_.behave("napper", "marker\nexit 0");
  EXPECT_EQ(upload("napper", "n"), "") << "it exits before answering";
  // Supervision notices the exit; the deployed stack stays, idle.
  ASSERT_TRUE(eventually([&] { return contains(daemon_.err(), "[napper] unexpected exit, success (0)"); }));
  daemon_.behave("napper", "");
  EXPECT_EQ(ask(daemon_.port(), encode_select("napper")), "failure: resurrecting dead stack");
  ASSERT_TRUE(daemon_.wait_ready("napper"));
  EXPECT_EQ(greeting(daemon_.port(), frame(encode_select("napper"))), "hello napper");
}

TEST_F(DaemonTest, AClaimedImageCostsNoMemoryAndOneTheDiskCannotTakeIsRefusedUnread) {
  ASSERT_EQ(upload("taken", "t"), "deployed taken");
  const std::string status = "/proc/" + std::to_string(daemon_.pid()) + "/status";
  auto peak_kib = [&] { return atol(strstr(read_file(status).c_str(), "VmHWM:") + 6); };
  const long peak = peak_kib();
  // Whatever the size, a client that closes after the request lets the next
  // one in at once.
  for (int64_t size : {int64_t{0}, int64_t{1}, int64_t{1} << 30, int64_t{1} << 40, INT64_MAX}) {
    Connection(daemon_.port()).send(frame(encode_upload("taken", size)));
    int64_t closed = now_ms();
    EXPECT_EQ(listed(), Names{"taken"});
    EXPECT_LT(now_ms() - closed, 1000) << size;
  }
  // Far below the smallest claim above, with room for a sanitizer's own
  // bookkeeping of each connection's arenas.
  EXPECT_LT(peak_kib() - peak, 64 << 10) << "the daemon's peak memory grew";
  EXPECT_EQ(entries(daemon_.path("data")), Names{daemon_.key_of("taken")});

  // All of the free space is more than an upload may take: the reply comes
  // without an image byte sent.
  struct statvfs disk {};
  ASSERT_EQ(statvfs(daemon_.path("data").c_str(), &disk), 0);
  Connection claim(daemon_.port());
  int64_t sent = now_ms();
  claim.send(frame(encode_upload("new", static_cast<int64_t>(disk.f_bavail * disk.f_frsize))));
  EXPECT_EQ(claim.reply(), "failure: image too large");
  EXPECT_LT(now_ms() - sent, 1000);
}

TEST(DaemonStop, OneSigintWithNoStacksStopsAtOnce) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  daemon.signal(SIGINT);
  EXPECT_EQ(daemon.wait_exit(3000), 0);
  std::string out = daemon.out();
  EXPECT_TRUE(contains(out, "] AppSrv: Signaled to stop!\n")) << out;
  EXPECT_TRUE(contains(out, "] AppSrv: Signal again to force stop!\n")) << out;
  EXPECT_FALSE(contains(out, "force stop!\n["));
}

TEST(DaemonStop, AStackThatIgnoresShutdownHoldsTheStopUntilTheForcedStep) {
  // The signals in their order: a second SIGINT or SIGTERM forces the stop,
  // a SIGTERM alone runs both steps.
  const std::vector<int> orders[] = {{SIGINT, SIGINT}, {SIGINT, SIGTERM}, {SIGTERM}};
  for (const std::vector<int>& signals : orders) {
    SCOPED_TRACE(testing::PrintToString(signals));
    Daemon daemon;
    daemon.behave("default", "marker\nignore-shutdown");
    ASSERT_TRUE(daemon.start());
    ASSERT_EQ(greeting(daemon.port(), upload_bytes("stubborn", "s")), "deployed stubborn");
    ASSERT_TRUE(daemon.wait_ready("stubborn"));
    daemon.signal(signals[0]);
    if (signals.size() == 2) {
      ASSERT_TRUE(eventually([&] { return contains(daemon.log_of_stack("stubborn"), "shutdown\n"); }));
      EXPECT_EQ(daemon.wait_exit(1500), -1) << "the stack still runs, so the daemon waits";
      EXPECT_EQ(list(daemon.port()), Names{"stubborn"}) << "connections are still served while a stop is pending";
      daemon.signal(signals[1]);
    }
    EXPECT_EQ(daemon.wait_exit(5000), 0);
    EXPECT_TRUE(contains(daemon.out(), "] AppSrv: Signaled to stop!\n"));
    EXPECT_TRUE(contains(daemon.out(), "] AppSrv: Signaled to force stop!\n"));
    EXPECT_NE(kill(daemon.starts_of("stubborn").at(0), 0), 0) << "the stack's group was killed";
  }
}

TEST(DaemonStartup, FailuresEndWithStatusOne) {
  Daemon no_data, bad_address, first, port_taken;
  rmdir(no_data.path("data").c_str());
  ASSERT_TRUE(first.start());
  const struct {
    Daemon& daemon;
    std::string host, port, error;
  } cases[] = {
      {no_data, "127.0.0.1", std::to_string(free_port()), "] Error: directory './data' is missing\n"},
      {bad_address, "localhost", "7340", "] AppSrv: Invalid TCP/IP: "},
      {port_taken, "127.0.0.1", std::to_string(first.port()),
       "] AppSrv: Unable to open listening socket: Address already in use\n"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(c.daemon.start_with(c.host, c.port));
    EXPECT_EQ(c.daemon.exit_status(), 1);
    EXPECT_TRUE(contains(c.daemon.err(), c.error)) << c.daemon.err();
  }
}

// The whole daemon over its real protocol: requests from a client built on
// the message modules, stacks started from the test bootstrap.
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "tests/e2e/client.h"
#include "tests/e2e/daemon.h"

using e2e::ask;
using e2e::Connection;
using e2e::Daemon;
using e2e::Reply;

namespace {

using Names = std::vector<std::string>;

bool eventually(const std::function<bool()>& condition, int milliseconds = 5000) {
  for (int waited = 0; waited < milliseconds; waited += 10) {
    if (condition()) return true;
    usleep(10000);
  }
  return condition();
}

bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

Names list(Daemon& daemon) {
  Reply reply = ask(daemon.port(), e2e::encode_list());
  EXPECT_TRUE(reply.received);
  EXPECT_EQ(reply.status, "success");
  EXPECT_TRUE(reply.has_names);
  return reply.names;
}

void expect_failure(Daemon& daemon, const std::string& request, const std::string& reason) {
  Reply reply = ask(daemon.port(), request);
  EXPECT_TRUE(reply.received) << reason;
  EXPECT_EQ(reply.status, "failure");
  EXPECT_EQ(reply.reason, reason);
}

// Uploads an image; the new stack itself answers on the connection.
std::string upload(Daemon& daemon, const std::string& name, const std::string& image) {
  Connection connection(daemon.port());
  EXPECT_TRUE(connection.send(e2e::frame(e2e::encode_upload(name, static_cast<int64_t>(image.size()))) + image));
  return connection.line();
}

std::string image_of(size_t size) {
  std::string image(size, '\0');
  for (size_t i = 0; i < size; ++i) image[i] = static_cast<char>((i * 131 + 7) % 251);
  return image;
}

class DaemonTest : public testing::Test {
 protected:
  void SetUp() override {
    daemon_.behave("default", "marker");
    ASSERT_TRUE(daemon_.start()) << daemon_.err();
  }
  Daemon daemon_;
};

}  // namespace

TEST_F(DaemonTest, UploadListSelectRenameDelete) {
  EXPECT_EQ(list(daemon_), Names{});

  const std::string image = image_of(300000);
  EXPECT_EQ(upload(daemon_, "app", image), "deployed app") << daemon_.err();
  std::string key = daemon_.key_of("app");
  ASSERT_EQ(key.size(), 64u);
  EXPECT_EQ(e2e::read_file(daemon_.path("data/" + key + "/serv/image")), image) << "the upload arrives byte for byte";
  EXPECT_EQ(list(daemon_), Names{"app"});

  // The stack needs a moment to bind its control socket after deploying.
  ASSERT_TRUE(eventually([&] { return daemon_.log_of_stack("app").find("ready") != std::string::npos; }));
  Connection selected(daemon_.port());
  selected.send(e2e::frame(e2e::encode_select("app")));
  EXPECT_EQ(selected.line(), "hello app") << "the stack answers on the handed-over connection";

  Connection renamed(daemon_.port());
  renamed.send(e2e::frame(e2e::encode_rename("app", "b")));
  EXPECT_EQ(renamed.line(), "hello b");
  EXPECT_EQ(e2e::read_file(daemon_.path("data/" + key + "/serv/name")), "b");
  EXPECT_EQ(list(daemon_), Names{"b"});

  Reply deleted = ask(daemon_.port(), e2e::encode_delete("b"));
  EXPECT_EQ(deleted.status, "success");
  EXPECT_FALSE(deleted.has_names);
  EXPECT_FALSE(exists(daemon_.path("data/" + key)));
  EXPECT_FALSE(exists(daemon_.path("stacks/" + key)));
  EXPECT_EQ(list(daemon_), Names{});
}

TEST_F(DaemonTest, ListIsSortedByteWise) {
  for (const char* name : {"beta", "alpha", "Zeta"}) EXPECT_EQ(upload(daemon_, name, "x"), std::string("deployed ") + name);
  EXPECT_EQ(list(daemon_), (Names{"Zeta", "alpha", "beta"}));
}

TEST_F(DaemonTest, FailuresComeInTheirOrderOfChecks) {
  EXPECT_EQ(upload(daemon_, "taken", "1"), "deployed taken");
  EXPECT_EQ(upload(daemon_, "other", "2"), "deployed other");

  expect_failure(daemon_, e2e::encode_delete("missing"), "unknown name");
  expect_failure(daemon_, e2e::encode_delete(""), "invalid name");
  expect_failure(daemon_, e2e::encode_select("missing"), "unknown name");
  expect_failure(daemon_, e2e::encode_select("a\nb"), "invalid name");
  expect_failure(daemon_, e2e::encode_rename("a\tb", "c\td"), "invalid old name");
  expect_failure(daemon_, e2e::encode_rename("taken", std::string(1024, 'x')), "invalid new name");
  expect_failure(daemon_, e2e::encode_rename("missing", "taken"), "unknown name");
  expect_failure(daemon_, e2e::encode_rename("taken", "taken"), "duplicate name");
  expect_failure(daemon_, e2e::encode_rename("taken", "other"), "duplicate name");

  // The whole image is read before the name is checked.
  Connection duplicate(daemon_.port());
  duplicate.send(e2e::frame(e2e::encode_upload("taken", 100000)) + image_of(100000));
  Reply reply = duplicate.reply();
  EXPECT_EQ(reply.reason, "duplicate name");
  Connection invalid(daemon_.port());
  invalid.send(e2e::frame(e2e::encode_upload("", 10)) + image_of(10));
  EXPECT_EQ(invalid.reply().reason, "invalid name");
  EXPECT_EQ(list(daemon_), (Names{"other", "taken"}));
}

TEST_F(DaemonTest, MalformedRequestsGetNoReplyAndChangeNothing) {
  EXPECT_EQ(upload(daemon_, "keep", "k"), "deployed keep");
  std::string list_request = e2e::encode_list();
  std::string wrong_fingerprint = list_request;
  wrong_fingerprint[0] = 'D';
  std::string tag_five = list_request;
  tag_five[67] = 5;
  std::vector<std::string> bad = {
      e2e::frame(wrong_fingerprint),
      e2e::frame(list_request + "x"),  // a byte too many
      e2e::frame(tag_five),
      e2e::frame(list_request.substr(0, 63)),
      std::string("\0\0\0\0", 4),  // an empty frame
      std::string("\0\x01\0\0", 4) + list_request,  // a length word above the frame limit
      std::string("\0\0", 2),  // the stream ends inside the length word
      e2e::frame(e2e::encode_delete("keep")).substr(0, 50),
  };
  for (const std::string& bytes : bad) {
    Connection connection(daemon_.port());
    connection.send(bytes);
    shutdown(connection.fd(), SHUT_WR);
    EXPECT_TRUE(connection.closed_without_reply());
  }
  Connection silent(daemon_.port());
  silent.close_now();
  EXPECT_EQ(list(daemon_), Names{"keep"});
}

TEST_F(DaemonTest, AnUploadCutShortDeploysNothing) {
  Connection connection(daemon_.port());
  connection.send(e2e::frame(e2e::encode_upload("partial", 1000)) + image_of(400));
  connection.close_now();
  EXPECT_EQ(list(daemon_), Names{});
  EXPECT_EQ(daemon_.key_of("partial"), "");
}

TEST_F(DaemonTest, AnImageTooLargeIsRefusedUnread) {
  Connection connection(daemon_.port());
  connection.send(e2e::frame(e2e::encode_upload("huge", int64_t{1} << 60)) + image_of(4096));
  Reply reply = connection.reply();
  EXPECT_EQ(reply.status, "failure");
  EXPECT_EQ(reply.reason, "image too large");
  EXPECT_EQ(list(daemon_), Names{});
}

TEST_F(DaemonTest, SelectingAnIdleStackStartsItAgain) {
  daemon_.behave("napper", "marker\nexit 0");
  Connection deploying(daemon_.port());
  deploying.send(e2e::frame(e2e::encode_upload("napper", 1)) + "n");
  EXPECT_TRUE(deploying.closed_without_reply()) << "it exits before answering";
  // Supervision notices the exit; the deployed stack stays, idle.
  ASSERT_TRUE(eventually([&] { return daemon_.err().find("[napper] unexpected exit, success (0)") != std::string::npos; }));
  daemon_.behave("napper", "");
  expect_failure(daemon_, e2e::encode_select("napper"), "resurrecting dead stack");
  ASSERT_TRUE(eventually([&] { return daemon_.log_of_stack("napper").find("ready") != std::string::npos; }));
  Connection selected(daemon_.port());
  selected.send(e2e::frame(e2e::encode_select("napper")));
  EXPECT_EQ(selected.line(), "hello napper");
}

TEST_F(DaemonTest, AStalledClientHoldsTheDaemonOnlyUntilItsTimeOut) {
  Connection stalled(daemon_.port());
  stalled.send(std::string("\0\0", 2));
  // The next client waits in the listen queue until the stalled one times out.
  Reply reply = ask(daemon_.port(), e2e::encode_list(), 45);
  EXPECT_TRUE(reply.received);
  EXPECT_TRUE(stalled.closed_without_reply());
}

TEST(DaemonStop, OneSigintWithNoStacksStopsAtOnce) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  daemon.signal(SIGINT);
  EXPECT_EQ(daemon.wait_exit(3000), 0);
  std::string out = daemon.out();
  EXPECT_NE(out.find("] AppSrv: Signaled to stop!\n"), std::string::npos) << out;
  EXPECT_NE(out.find("] AppSrv: Signal again to force stop!\n"), std::string::npos) << out;
  EXPECT_EQ(out.find("force stop!\n["), std::string::npos);
}

TEST(DaemonStop, AStackThatIgnoresShutdownNeedsASecondSignal) {
  for (int second : {SIGINT, SIGTERM}) {
    Daemon daemon;
    daemon.behave("default", "marker\nignore-shutdown");
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(upload(daemon, "stubborn", "s"), "deployed stubborn");
    ASSERT_TRUE(eventually([&] { return daemon.log_of_stack("stubborn").find("ready") != std::string::npos; }));
    daemon.signal(SIGINT);
    ASSERT_TRUE(eventually([&] { return daemon.log_of_stack("stubborn").find("message 1") != std::string::npos; }));
    EXPECT_EQ(daemon.wait_exit(1500), -1) << "the stack still runs, so the daemon waits";
    EXPECT_EQ(list(daemon), Names{"stubborn"}) << "connections are still served while a stop is pending";
    daemon.signal(second);
    EXPECT_EQ(daemon.wait_exit(5000), 0);
    EXPECT_NE(daemon.out().find("] AppSrv: Signaled to force stop!\n"), std::string::npos);
  }
}

TEST(DaemonStop, SigtermAloneRunsBothSteps) {
  Daemon daemon;
  daemon.behave("default", "marker\nignore-shutdown");
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(upload(daemon, "stubborn", "s"), "deployed stubborn");
  ASSERT_TRUE(eventually([&] { return daemon.log_of_stack("stubborn").find("ready") != std::string::npos; }));
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait_exit(5000), 0);
  std::string out = daemon.out();
  EXPECT_NE(out.find("Signaled to stop!"), std::string::npos);
  EXPECT_NE(out.find("Signaled to force stop!"), std::string::npos);
  std::string log = daemon.log_of_stack("stubborn");
  pid_t stack_pid = atoi(log.substr(log.find("start pid=") + 10).c_str());
  EXPECT_NE(kill(stack_pid, 0), 0) << "the stack's group was killed";
}

TEST(DaemonStartup, FailuresEndWithStatusOne) {
  {
    Daemon daemon;
    rmdir(daemon.path("data").c_str());
    EXPECT_FALSE(daemon.start());
    EXPECT_EQ(daemon.exit_status(), 1);
    EXPECT_NE(daemon.err().find("] Error: directory './data' is missing\n"), std::string::npos) << daemon.err();
  }
  {
    Daemon daemon;
    EXPECT_FALSE(daemon.start_with("localhost", "7340"));
    EXPECT_EQ(daemon.exit_status(), 1);
    EXPECT_NE(daemon.err().find("] AppSrv: Invalid TCP/IP: "), std::string::npos) << daemon.err();
  }
  {
    Daemon first, second;
    ASSERT_TRUE(first.start());
    EXPECT_FALSE(second.start_with("127.0.0.1", std::to_string(first.port())));
    EXPECT_EQ(second.exit_status(), 1);
    EXPECT_NE(second.err().find("] AppSrv: Unable to open listening socket: Address already in use\n"),
              std::string::npos)
        << second.err();
  }
}

// The operator's path: appsrvctl and the reference stack runtime against the
// real daemon, with the example application.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/ctl.h"

using namespace e2e;

namespace {

const std::string kExample = std::string(APPSRV_SOURCE_DIR) + "/examples/hello.sh";

class Quickstart : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.start()) << daemon_.err(); }
  Daemon daemon_{APPSRV_RUNTIME};
};

}  // namespace

TEST_F(Quickstart, UploadSelectRenameDelete) {
  Outcome upload = appsrvctl(daemon_, {"upload", "hello", kExample});
  ASSERT_EQ(upload.status, 0) << upload.err;
  EXPECT_EQ(appsrvctl(daemon_, {"list"}).out, "hello\n");

  Outcome session = appsrvctl(daemon_, {"select", "hello"}, "hi there\nquit\n");
  EXPECT_EQ(session.status, 0) << session.err;
  EXPECT_EQ(session.out, "hello from hello\nhello: hi there\nbye\n");

  EXPECT_EQ(appsrvctl(daemon_, {"rename", "hello", "greeter"}).status, 0);
  EXPECT_EQ(appsrvctl(daemon_, {"select", "greeter"}, "quit\n").out, "hello from greeter\nbye\n")
      << "a later handler sees the new name";

  EXPECT_EQ(appsrvctl(daemon_, {"delete", "greeter"}).status, 0);
  EXPECT_EQ(appsrvctl(daemon_, {"list"}).out, "");
  EXPECT_EQ(appsrvctl(daemon_, {"select", "greeter"}).status, 3) << "unknown name";
}

TEST_F(Quickstart, AnInvalidImageIsRefusedAndItsStackRemoved) {
  write_file(daemon_.path("notes.txt"), "just some text\n");
  Outcome upload = appsrvctl(daemon_, {"upload", "notes", daemon_.path("notes.txt")});
  EXPECT_EQ(upload.status, 1);
  EXPECT_TRUE(contains(upload.err, "invalid image")) << upload.err;
  // The deploying runtime exits without the deployed marker; supervision
  // removes the stack.
  EXPECT_TRUE(eventually([&] { return appsrvctl(daemon_, {"list"}).out.empty(); }));
  EXPECT_EQ(daemon_.key_of("notes"), "");
}

TEST_F(Quickstart, SigintShutsTheStacksDownAndTellsASelectedClientWhy) {
  ASSERT_EQ(appsrvctl(daemon_, {"upload", "hello", kExample}).status, 0);
  // A session whose standard input stays open (a fifo opened both ways)
  // until the shutdown ends it.
  std::string session = daemon_.path("session");
  std::string command = "mkfifo " + session + ".in && (APPSRV_ADDRESS=127.0.0.1:" + std::to_string(daemon_.port()) +
                        " " APPSRVCTL_BINARY " select hello <>" + session + ".in >" + session + ".out 2>" + session +
                        ".err; echo $? >" + session + ".status) &";
  ASSERT_EQ(system(command.c_str()), 0);
  ASSERT_TRUE(eventually([&] { return read_file(session + ".out") == "hello from hello\n"; }));

  daemon_.signal(SIGINT);
  EXPECT_EQ(daemon_.wait_exit(5000), 0);
  EXPECT_TRUE(contains(daemon_.out(), "AppSrv: Signaled to stop!"));
  EXPECT_FALSE(contains(daemon_.out(), "Signaled to force stop!")) << "the runtime shuts down when told";
  ASSERT_TRUE(eventually([&] { return contains(read_file(session + ".status"), "\n"); }));
  EXPECT_EQ(read_file(session + ".status"), "5\n");
  EXPECT_EQ(read_file(session + ".out"), "hello from hello\nappsrv: session ended: the stack is stopping\n");
  EXPECT_TRUE(contains(read_file(session + ".err"), "select 'hello': the stack stopped the session"));
}

// The operator's path: appsrvctl and the reference stack runtime against the
// real daemon, with the example application.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/e2e/daemon.h"

using namespace e2e;

namespace {

struct Outcome {
  int status = -1;
  std::string out, err;
};

// Runs appsrvctl against the daemon with `input` on its standard input.
Outcome appsrvctl(const Daemon& daemon, const std::vector<std::string>& arguments, const std::string& input = "") {
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    std::string address = "APPSRV_ADDRESS=127.0.0.1:" + std::to_string(daemon.port());
    putenv(address.data());
    std::vector<char*> argv{const_cast<char*>(APPSRVCTL_BINARY)};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv(APPSRVCTL_BINARY, argv.data());
    _exit(127);
  }
  for (int fd : {in[0], out[1], err[1]}) close(fd);
  if (!input.empty()) (void)!write(in[1], input.data(), input.size());
  close(in[1]);
  Outcome run;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  for (int open = 2; open > 0 && poll(fds, 2, 20000) > 0;) {
    for (int i = 0; i < 2; ++i) {
      char chunk[4096];
      ssize_t got = fds[i].revents == 0 ? -2 : read(fds[i].fd, chunk, sizeof chunk);
      if (got > 0) (i == 0 ? run.out : run.err).append(chunk, static_cast<size_t>(got));
      else if (got != -2) fds[i].fd = -1, --open;
    }
  }
  close(out[0]);
  close(err[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

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

TEST_F(Quickstart, SigintShutsTheStacksDownAndStops) {
  ASSERT_EQ(appsrvctl(daemon_, {"upload", "hello", kExample}).status, 0);
  daemon_.signal(SIGINT);
  EXPECT_EQ(daemon_.wait_exit(5000), 0);
  EXPECT_TRUE(contains(daemon_.out(), "AppSrv: Signaled to stop!"));
  EXPECT_FALSE(contains(daemon_.out(), "Signaled to force stop!")) << "the runtime shuts down when told";
}

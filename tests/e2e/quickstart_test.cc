// The operator's path: appsrvctl and the reference stack runtime against the
// real daemon, with the example application, directly and through a real
// sshd (which needs root and /usr/sbin/sshd; elsewhere that test is skipped).
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/ctl.h"

using namespace e2e;

namespace {

const std::string kExample = std::string(APPSRV_SOURCE_DIR) + "/examples/hello.sh";

class Quickstart : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.start()) << daemon_.err(); }
  Daemon daemon_{APPSRV_RUNTIME};
};
class Ssh : public Quickstart {};

}  // namespace

TEST_F(Quickstart, UploadSelectRenameDeleteAndAnInvalidImageRefused) {
  Outcome upload = appsrvctl(daemon_, {"upload", "hello", kExample});
  ASSERT_EQ(upload.status, 0) << upload.err;
  EXPECT_EQ(appsrvctl(daemon_, {"list"}).out, "hello\n");

  Outcome session = appsrvctl(daemon_, {"select", "hello"}, "hi there\nquit\n");
  EXPECT_EQ(session.status, 0) << session.err;
  EXPECT_EQ(session.out, "hello from hello\nhello: hi there\nbye\n");

  EXPECT_EQ(appsrvctl(daemon_, {"rename", "hello", "greeter"}).status, 0);
  // The end of standard input reaches the application, which still answers.
  EXPECT_EQ(appsrvctl(daemon_, {"attach", "greeter"}).out, "hello from greeter\nbye\n")
      << "a later handler sees the new name";

  EXPECT_EQ(appsrvctl(daemon_, {"delete", "greeter"}).status, 0);
  EXPECT_EQ(appsrvctl(daemon_, {"list"}).out, "");
  EXPECT_EQ(appsrvctl(daemon_, {"select", "greeter"}).status, 3) << "unknown name";

  // The deploying runtime exits without the deployed marker; supervision
  // removes the stack.
  write_file(daemon_.path("notes.txt"), "just some text\n");
  Outcome refused = appsrvctl(daemon_, {"upload", "notes", daemon_.path("notes.txt")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(contains(refused.err, "invalid image")) << refused.err;
  EXPECT_TRUE(eventually([&] { return appsrvctl(daemon_, {"list"}).out.empty() && daemon_.key_of("notes").empty(); }));
}

TEST_F(Quickstart, SigintShutsTheStacksDownAndTellsASelectedClientWhy) {
  ASSERT_EQ(appsrvctl(daemon_, {"upload", "hello", kExample}).status, 0);
  // A session whose standard input stays open until the shutdown ends it.
  Ctl session({"select", "hello"}, reaching(daemon_));
  ASSERT_TRUE(eventually([&] { return session.out() == "hello from hello\n"; }));

  daemon_.signal(SIGINT);
  EXPECT_EQ(daemon_.wait_exit(5000), 0);
  EXPECT_TRUE(contains(daemon_.out(), "AppSrv: Signaled to stop!"));
  EXPECT_FALSE(contains(daemon_.out(), "Signaled to force stop!")) << "the runtime shuts down when told";
  Outcome ended = session.wait();
  EXPECT_EQ(ended.status, 5);
  EXPECT_EQ(ended.out, "hello from hello\nappsrv: session ended: the stack is stopping\n");
  EXPECT_TRUE(contains(ended.err, "select 'hello': the stack stopped the session")) << ended.err;
}

// The management protocol through ssh -W, and status run by appsrvctl on the
// SSH host (the built one: first on its sessions' PATH), as the current user
// with throwaway keys.
TEST_F(Ssh, ListUploadSelectAndStatusTravelThroughSsh) {
  if (geteuid() != 0 || access("/usr/sbin/sshd", X_OK) != 0) GTEST_SKIP() << "sshd needs root and /usr/sbin/sshd";
  std::string dir = daemon_.path("sshd");
  uint16_t port = free_port();
  make_tree(dir + "/bin");
  ASSERT_EQ(system(("ssh-keygen -q -t ed25519 -N '' -f " + dir + "/host_key && ssh-keygen -q -t ed25519 -N '' -f " +
                    dir + "/user_key && cp " + dir + "/user_key.pub " + dir + "/authorized_keys").c_str()), 0);
  ASSERT_EQ(symlink(APPSRVCTL_BINARY, (dir + "/bin/appsrvctl").c_str()), 0);
  write_file(dir + "/sshd_config", "Port " + std::to_string(port) + "\nListenAddress 127.0.0.1\nHostKey " + dir + "/host_key\n"
                                   "AuthorizedKeysFile " + dir + "/authorized_keys\nPidFile none\nUsePAM no\n"
                                   "StrictModes no\nSetEnv PATH=" + dir + "/bin:/usr/bin:/bin\n");
  write_file(dir + "/ssh_config", "Host *\n  IdentityFile " + dir + "/user_key\n  IdentitiesOnly yes\n"
                                  "  UserKnownHostsFile /dev/null\n  GlobalKnownHostsFile /dev/null\n"
                                  "  StrictHostKeyChecking no\n  LogLevel ERROR\n");
  mkdir("/run/sshd", 0755);  // its privilege separation directory
  pid_t sshd = fork();
  if (sshd == 0) {
    dup2(open((dir + "/sshd.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 2);
    execl("/usr/sbin/sshd", "/usr/sbin/sshd", "-D", "-e", "-f", (dir + "/sshd_config").c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  struct Stop {
    pid_t pid;
    ~Stop() { kill(pid, SIGTERM) == 0 && waitpid(pid, nullptr, 0); }
  } stop{sshd};
  ASSERT_TRUE(eventually([&] { return Connection(port).connected(); })) << read_file(dir + "/sshd.log");
  auto run = [&](std::vector<std::string> arguments, const std::string& input = "") {
    return appsrvctl(daemon_, arguments, input,
                     {{"APPSRV_SSH", std::string(getpwuid(getuid())->pw_name) + "@127.0.0.1:" + std::to_string(port)},
                      {"APPSRV_SSH_OPTIONS", "-F " + dir + "/ssh_config"}});
  };

  Outcome upload = run({"upload", "hello", kExample});
  EXPECT_EQ(upload.status, 0) << upload.err;
  EXPECT_TRUE(contains(upload.err, " via ")) << upload.err;
  EXPECT_EQ(run({"list"}).out, "hello\n");
  Outcome session = run({"select", "hello"}, "over ssh\nquit\n");
  EXPECT_EQ(session.out, "hello from hello\nhello: over ssh\nbye\n") << session.err;

  // The working directory is the SSH host's, given on.
  Outcome status = run({"status", "--workdir", daemon_.path("")});
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_TRUE(std::regex_search(status.out, std::regex("\nhello +running +[0-9]+ "))) << status.out;

  Outcome nobody = run({"--address", "127.0.0.1:1", "list"});
  EXPECT_EQ(nobody.status, 5);
  EXPECT_TRUE(contains(nobody.err, "list: ssh: stdio forwarding failed")) << nobody.err;
}

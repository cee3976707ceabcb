// appsrvctl --ssh against a real sshd, started on a free loopback port with
// throwaway keys: the management protocol through ssh -W, and status run by
// appsrvctl on the SSH host (the built one: first on its sessions' PATH).
// sshd needs root and /run/sshd; elsewhere the test is skipped.
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

class Sshd {
 public:
  Sshd() {
    char pattern[] = "/tmp/appsrv-sshd-XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    dir_ = pattern;
  }
  ~Sshd() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    if (system(("rm -rf '" + dir_ + "'").c_str()) != 0) fprintf(stderr, "cleanup of %s failed\n", dir_.c_str());
  }

  // "" once it accepts connections, else why not.
  std::string start() {
    std::string keys = "ssh-keygen -q -t ed25519 -N '' -f '" + dir_ + "/host_key' && ssh-keygen -q -t ed25519 -N '' -f '" +
                       dir_ + "/user_key' && cp '" + dir_ + "/user_key.pub' '" + dir_ + "/authorized_keys'";
    if (system(keys.c_str()) != 0) return "ssh-keygen failed";
    make_tree(dir_ + "/bin");
    if (symlink(APPSRVCTL_BINARY, (dir_ + "/bin/appsrvctl").c_str()) != 0) return "no link to appsrvctl";
    port_ = free_port();
    write_file(dir_ + "/sshd_config", "Port " + std::to_string(port_) + "\nListenAddress 127.0.0.1\nHostKey " + dir_ +
                                          "/host_key\nAuthorizedKeysFile " + dir_ +
                                          "/authorized_keys\nPidFile none\nUsePAM no\nStrictModes no\n"
                                          "PasswordAuthentication no\nKbdInteractiveAuthentication no\n"
                                          "SetEnv PATH=" + dir_ + "/bin:/usr/bin:/bin\n");
    write_file(dir_ + "/ssh_config", "Host *\n  IdentityFile " + dir_ + "/user_key\n  IdentitiesOnly yes\n"
                                         "  UserKnownHostsFile /dev/null\n  GlobalKnownHostsFile /dev/null\n"
                                         "  StrictHostKeyChecking no\n  LogLevel ERROR\n");
    mkdir("/run/sshd", 0755);  // its privilege separation directory
    pid_ = fork();
    if (pid_ == 0) {
      dup2(open((dir_ + "/sshd.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 2);
      execl("/usr/sbin/sshd", "/usr/sbin/sshd", "-D", "-e", "-f", (dir_ + "/sshd_config").c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    if (eventually([&] { return Connection(port_).connected() || waitpid(pid_, nullptr, WNOHANG) == pid_; }) &&
        Connection(port_).connected())
      return "";
    return "sshd did not start: " + read_file(dir_ + "/sshd.log");
  }

  // The variables that send appsrvctl through this sshd as the current user.
  std::string variables() const {
    return "APPSRV_SSH=" + shell_quoted(std::string(getpwuid(getuid())->pw_name) + "@127.0.0.1:" + std::to_string(port_)) +
           " APPSRV_SSH_OPTIONS=" + shell_quoted("-F " + dir_ + "/ssh_config");
  }

 private:
  std::string dir_;
  uint16_t port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace

TEST(Ssh, ListUploadSelectAndStatusTravelThroughSsh) {
  if (geteuid() != 0 || access("/usr/sbin/sshd", X_OK) != 0) GTEST_SKIP() << "sshd needs root and /usr/sbin/sshd";
  Sshd sshd;
  std::string why = sshd.start();
  ASSERT_EQ(why, "");
  Daemon daemon{APPSRV_RUNTIME};
  ASSERT_TRUE(daemon.start()) << daemon.err();
  std::string through = sshd.variables();
  auto run = [&](std::vector<std::string> arguments, const std::string& input = "") {
    return appsrvctl(daemon, arguments, input, through);
  };

  Outcome upload = run({"upload", "hello", kExample});
  EXPECT_EQ(upload.status, 0) << upload.err;
  EXPECT_TRUE(contains(upload.err, " via ")) << upload.err;
  EXPECT_EQ(run({"list"}).out, "hello\n");
  Outcome session = run({"select", "hello"}, "over ssh\nquit\n");
  EXPECT_EQ(session.out, "hello from hello\nhello: over ssh\nbye\n") << session.err;

  // The working directory is the SSH host's, given on.
  Outcome status = run({"status", "--workdir", daemon.path("")});
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_TRUE(std::regex_search(status.out, std::regex("\nhello +running +[0-9]+ "))) << status.out;

  Outcome nobody = run({"--address", "127.0.0.1:1", "list"});
  EXPECT_EQ(nobody.status, 5);
  EXPECT_TRUE(contains(nobody.err, "list: ssh: stdio forwarding failed")) << nobody.err;
}

// The processes around a crash: stacks a killed daemon left running, a second
// daemon started in a directory that already has one, and a forced stop of
// stacks that ignore SIGTERM.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/crash/crash_util.h"
#include "tests/e2e/daemon.h"

using crash::Names;
using e2e::Daemon;

namespace {

// Runs appsrv in the daemon's directory on another port; its exit status, or
// -1 if it still runs after `milliseconds` (it is then killed).
int run_second_daemon(Daemon& daemon, std::string* err, int milliseconds) {
  std::string err_path = daemon.path("second.err");
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(daemon.path("").c_str()) != 0) _exit(127);
    int fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    std::string port = std::to_string(e2e::free_port());
    execl(APPSRV_BINARY, APPSRV_BINARY, "127.0.0.1", port.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = -1;
  for (int waited = 0; waited < milliseconds; waited += 10) {
    if (waitpid(pid, &status, WNOHANG) == pid) {
      *err = e2e::read_file(err_path);
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    usleep(10000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

// An unrelated process that leads its own group, as a reused pid would.
pid_t start_bystander() {
  pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    for (;;) pause();
  }
  setpgid(pid, pid);
  return pid;
}

bool eventually(bool (*condition)(pid_t), pid_t pid, int milliseconds = 3000) {
  for (int waited = 0; waited < milliseconds; waited += 10) {
    if (condition(pid)) return true;
    usleep(10000);
  }
  return condition(pid);
}

}  // namespace

TEST(Orphans, AKilledDaemonsStacksAreStoppedBeforeTheirSuccessorsStart) {
  Daemon daemon;
  daemon.set_start_wait(15000);
  daemon.behave("polite", "marker\ncount-peers\ngrandchild");
  daemon.behave("stubborn", "marker\ncount-peers\nignore-term\ngrandchild-ignore-term");
  ASSERT_TRUE(daemon.start()) << daemon.err();
  ASSERT_EQ(crash::upload(daemon, "polite", "p"), "deployed polite");
  ASSERT_EQ(crash::upload(daemon, "stubborn", "s"), "deployed stubborn");
  std::string polite_key = daemon.key_of("polite"), stubborn_key = daemon.key_of("stubborn");
  pid_t polite = crash::starts_in(daemon.log_of_stack("polite")).at(0);
  pid_t stubborn = crash::starts_in(daemon.log_of_stack("stubborn")).at(0);
  pid_t polite_child = crash::grandchild_in(daemon.log_of_stack("polite"));
  pid_t stubborn_child = crash::grandchild_in(daemon.log_of_stack("stubborn"));
  ASSERT_GT(polite_child, 0);
  ASSERT_GT(stubborn_child, 0);

  daemon.signal(SIGKILL);
  ASSERT_GE(daemon.wait_exit(5000), 0);
  ASSERT_FALSE(crash::process_gone(polite));
  ASSERT_FALSE(crash::process_gone(stubborn));
  // A record whose pid now belongs to someone else (another start time), and
  // one of a process that is gone: neither may be signalled.
  pid_t bystander = start_bystander();
  struct Reap {
    pid_t pid;
    ~Reap() {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  } reap_bystander{bystander};
  e2e::write_file(daemon.path("private/job-" + std::to_string(bystander)),
                  std::to_string(bystander) + " 1 " + std::string(64, 'b') + "\n");
  e2e::write_file(daemon.path("private/job-999999999"), "999999999 1 " + std::string(64, 'c') + "\n");
  e2e::write_file(daemon.path("private/.job-77.tmp"), "77 ");

  int64_t started = crash::now_ms();
  ASSERT_TRUE(daemon.start()) << daemon.err();
  int64_t took = crash::now_ms() - started;
  EXPECT_GE(took, 5000) << "the stubborn orphan gets 5 seconds after SIGTERM";
  EXPECT_LT(took, 9000);

  for (pid_t old : {polite, stubborn, polite_child, stubborn_child}) EXPECT_TRUE(crash::process_gone(old)) << old;
  EXPECT_TRUE(crash::members_of(polite).empty());
  EXPECT_TRUE(crash::members_of(stubborn).empty());
  // The successors found no earlier instance of themselves alive.
  for (const char* name : {"polite", "stubborn"}) {
    std::string log;
    for (int waited = 0; waited < 3000; waited += 10) {
      log = daemon.log_of_stack(name);
      size_t peers = log.find("peers ");
      if (peers != std::string::npos && log.find("peers ", peers + 1) != std::string::npos) break;
      usleep(10000);
    }
    ASSERT_EQ(crash::starts_in(log).size(), 2u) << log;
    EXPECT_EQ(log.substr(log.rfind("peers ")).substr(0, 8), "peers 0\n") << log;
  }
  std::string err = daemon.err();
  for (const std::string& key : {polite_key, stubborn_key})
    EXPECT_NE(err.find("] Error: stack '" + key + "' left running by an earlier run, stopping its process group"),
              std::string::npos)
        << err;
  EXPECT_EQ(err.find(std::string(64, 'b')), std::string::npos) << err;
  EXPECT_EQ(err.find(std::string(64, 'c')), std::string::npos) << err;

  EXPECT_FALSE(crash::process_gone(bystander)) << "an unrelated process was signalled";
  // Old records are gone; the new jobs have theirs.
  Names records;
  for (const std::string& entry : crash::entries(daemon.path("private")))
    if (entry.find("job") != std::string::npos) records.push_back(entry);
  pid_t polite_now = crash::starts_in(daemon.log_of_stack("polite")).at(1);
  pid_t stubborn_now = crash::starts_in(daemon.log_of_stack("stubborn")).at(1);
  Names expected = {"job-" + std::to_string(polite_now), "job-" + std::to_string(stubborn_now)};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(records, expected);
}

TEST(Orphans, ASecondDaemonInTheSameDirectoryExitsAndChangesNothing) {
  Daemon daemon;
  daemon.behave("default", "marker");
  ASSERT_TRUE(daemon.start()) << daemon.err();
  ASSERT_EQ(crash::upload(daemon, "app", "image"), "deployed app");
  ASSERT_TRUE(crash::wait_ready(daemon, "app"));
  std::string before_log = daemon.log_of_stack("app");

  std::string err;
  ASSERT_EQ(run_second_daemon(daemon, &err, 5000), 1) << err;
  std::string expected = "Error: working directory in use by process " + std::to_string(daemon.pid()) + "\n";
  EXPECT_NE(err.find("] " + expected), std::string::npos) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;

  // The first daemon still serves and its node socket still reaches the stack.
  EXPECT_EQ(crash::list(daemon), (Names{"app"}));
  EXPECT_EQ(crash::rename(daemon, "app", "app2"), "hello app2");
  EXPECT_EQ(crash::starts_in(daemon.log_of_stack("app2")).size(), 1u) << "the stack was not started again";
  EXPECT_EQ(daemon.log_of_stack("app2").substr(0, before_log.size()), before_log);
}

TEST(ForcedStop, TenStubbornStacksHoldTheDaemonFiveSecondsNotFifty) {
  Daemon daemon;
  daemon.behave("default", "marker\nignore-shutdown\nignore-term\ngrandchild-ignore-term");
  ASSERT_TRUE(daemon.start()) << daemon.err();
  std::vector<pid_t> groups;
  for (int i = 0; i < 10; ++i) {
    std::string name = "s" + std::to_string(i);
    ASSERT_EQ(crash::upload(daemon, name, "x"), "deployed " + name);
    groups.push_back(crash::starts_in(daemon.log_of_stack(name)).at(0));
  }
  for (int i = 0; i < 10; ++i) {
    std::string name = "s" + std::to_string(i);
    for (int waited = 0; waited < 3000 && crash::grandchild_in(daemon.log_of_stack(name)) == 0; waited += 10)
      usleep(10000);
    ASSERT_EQ(crash::members_of(groups[i]).size(), 2u) << name;
  }

  int64_t started = crash::now_ms();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.wait_exit(12000), 0) << daemon.err();
  int64_t took = crash::now_ms() - started;
  EXPECT_GE(took, 5000);
  EXPECT_LE(took, 8000);
  for (pid_t group : groups)
    EXPECT_TRUE(eventually([](pid_t g) { return crash::members_of(g).empty(); }, group)) << group;
  std::string err = daemon.err();
  size_t lines = 0;
  for (size_t at = err.find("did not stop in time, killed\n"); at != std::string::npos;
       at = err.find("did not stop in time, killed\n", at + 1))
    ++lines;
  EXPECT_EQ(lines, 10u) << err;
}

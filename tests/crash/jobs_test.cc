// The processes around a crash: stacks a killed daemon left running, a second
// daemon started in a directory that already has one, and a forced stop of
// stacks that ignore SIGTERM.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/daemon.h"

using namespace e2e;

namespace {

// The live (not zombie) processes of process group `group`.
size_t members_of(pid_t group) {
  size_t members = 0;
  for (const std::string& pid : entries("/proc")) {
    std::string stat = read_file("/proc/" + pid + "/stat");
    size_t paren = stat.rfind(')');
    char state = 0;
    int parent = 0, pgrp = 0;
    if (paren != std::string::npos && sscanf(stat.c_str() + paren + 1, " %c %d %d", &state, &parent, &pgrp) == 3)
      members += state != 'Z' && pgrp == group;
  }
  return members;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// An unrelated process leading its own group, as a reused pid would; killed
// and reaped at the end of scope.
struct Bystander {
  Bystander() : pid(fork()) {
    if (pid == 0) for (;;) pause();
    setpgid(pid, pid);
  }
  ~Bystander() { kill(pid, SIGKILL), waitpid(pid, nullptr, 0); }
  pid_t pid;
};

}  // namespace

TEST(Orphans, AKilledDaemonsStacksAreStoppedBeforeTheirSuccessorsStart) {
  Daemon daemon;
  daemon.set_start_wait(15000);
  daemon.behave("polite", "marker\ncount-peers\ngrandchild");
  daemon.behave("stubborn", "marker\ncount-peers\nignore-term\ngrandchild-ignore-term");
  ASSERT_TRUE(daemon.start()) << daemon.err();
  std::vector<std::string> keys;
  std::vector<pid_t> groups;
  for (const char* name : {"polite", "stubborn"}) {
    ASSERT_EQ(greeting(daemon.port(), upload_bytes(name, "p")), std::string("deployed ") + name);
    keys.push_back(daemon.key_of(name));
    groups.push_back(daemon.starts_of(name).at(0));
    ASSERT_TRUE(eventually([&] { return members_of(groups.back()) == 2; }, 3000)) << "the stack and its grandchild";
  }
  daemon.signal(SIGKILL);
  ASSERT_GE(daemon.wait_exit(5000), 0);
  for (pid_t group : groups) ASSERT_EQ(members_of(group), 2u) << "left running by the killed daemon";
  // A record whose pid now belongs to someone else (another start time), and
  // one of a process that is gone: neither may be signalled.
  Bystander bystander;
  write_file(daemon.path("private/job-" + std::to_string(bystander.pid)),
             std::to_string(bystander.pid) + " 1 " + std::string(64, 'b') + "\n");
  write_file(daemon.path("private/job-999999999"), "999999999 1 " + std::string(64, 'c') + "\n");
  write_file(daemon.path("private/.job-77.tmp"), "77 ");

  int64_t started = now_ms();
  ASSERT_TRUE(daemon.start()) << daemon.err();
  int64_t took = now_ms() - started;
  EXPECT_GE(took, 5000) << "the stubborn orphan gets 5 seconds after SIGTERM";
  EXPECT_LT(took, 9000);
  for (pid_t group : groups) EXPECT_EQ(members_of(group), 0u) << "the orphans and their grandchildren are gone";

  // The successors found no earlier instance of themselves alive.
  Names expected_records;
  for (const char* name : {"polite", "stubborn"}) {
    std::string log;
    eventually([&] { return occurrences(log = daemon.log_of_stack(name), "peers ") == 2; }, 3000);
    ASSERT_EQ(daemon.starts_of(name).size(), 2u) << log;
    EXPECT_EQ(log.substr(log.rfind("peers ")).substr(0, 8), "peers 0\n") << log;
    expected_records.push_back("job-" + std::to_string(daemon.starts_of(name).at(1)));
  }
  std::string err = daemon.err();
  for (const std::string& key : keys)
    EXPECT_TRUE(contains(err, "] Error: stack '" + key + "' left running by an earlier run, stopping its process group"))
        << err;
  EXPECT_FALSE(contains(err, std::string(64, 'b'))) << err;
  EXPECT_FALSE(contains(err, std::string(64, 'c'))) << err;
  EXPECT_EQ(members_of(bystander.pid), 1u) << "an unrelated process was signalled";

  // Old records are gone; the new jobs have theirs.
  Names records;
  for (const std::string& entry : entries(daemon.path("private")))
    if (contains(entry, "job")) records.push_back(entry);
  std::sort(expected_records.begin(), expected_records.end());
  EXPECT_EQ(records, expected_records);
}

TEST(Orphans, ASecondDaemonInTheSameDirectoryExitsAndChangesNothing) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start()) << daemon.err();
  ASSERT_EQ(greeting(daemon.port(), upload_bytes("app", "image")), "deployed app");
  ASSERT_TRUE(daemon.wait_ready("app"));
  std::string before_log = daemon.log_of_stack("app");

  // A second appsrv in the same directory on another port.
  int status = system(("cd " + daemon.path("") + " && exec timeout 5 " APPSRV_BINARY " 127.0.0.1 " +
                       std::to_string(free_port()) + " 2>second.err").c_str());
  std::string err = read_file(daemon.path("second.err"));
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status << err;
  EXPECT_TRUE(contains(err, "] Error: working directory in use by process " + std::to_string(daemon.pid()) + "\n"))
      << err;
  EXPECT_EQ(occurrences(err, "\n"), 1u) << err;

  // The first daemon still serves and its node socket still reaches the stack.
  EXPECT_EQ(list(daemon.port()), (Names{"app"}));
  EXPECT_EQ(greeting(daemon.port(), frame(encode_rename("app", "app2"))), "hello app2");
  EXPECT_EQ(daemon.starts_of("app2").size(), 1u) << "the stack was not started again";
  EXPECT_EQ(daemon.log_of_stack("app2").substr(0, before_log.size()), before_log);
}

TEST(ForcedStop, TenStubbornStacksHoldTheDaemonFiveSecondsNotFifty) {
  Daemon daemon;
  daemon.behave("default", "marker\nignore-shutdown\nignore-term\ngrandchild-ignore-term");
  ASSERT_TRUE(daemon.start()) << daemon.err();
  std::vector<pid_t> groups;
  for (int i = 0; i < 10; ++i) {
    std::string name = "s" + std::to_string(i);
    ASSERT_EQ(greeting(daemon.port(), upload_bytes(name, "x")), "deployed " + name);
    groups.push_back(daemon.starts_of(name).at(0));
    ASSERT_TRUE(eventually([&] { return members_of(groups[i]) == 2; }, 3000)) << name << ": the stack and its grandchild";
  }
  int64_t started = now_ms();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.wait_exit(12000), 0) << daemon.err();
  int64_t took = now_ms() - started;
  EXPECT_GE(took, 5000);
  EXPECT_LE(took, 8000);
  for (pid_t group : groups) EXPECT_TRUE(eventually([&] { return members_of(group) == 0; }, 3000)) << group;
  std::string err = daemon.err();
  EXPECT_EQ(occurrences(err, "did not stop in time, killed\n"), 10u) << err;
}

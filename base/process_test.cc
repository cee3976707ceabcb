#include "base/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/socket.h"
#include "tests/support/scratch_dir.h"

namespace {

std::vector<int> open_descriptors() {  // the listing's own descriptor is counted every time
  std::vector<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    numbers.push_back(std::stoi(entry.path().filename()));
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// SIGALRM without SA_RESTART (as the daemon installs its stop handlers) after
// `first_us` and then every `every_us`; (0, 0) stops it.
void alarms(long first_us, long every_us) {
  struct sigaction action{};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  itimerval timer{{0, every_us}, {0, first_us}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

const char* sleeper[] = {"/bin/sleep", "30", nullptr};

// Waits for a started child and releases it: its exit code, or -2 when it did not start.
int finish(process* child) {
  if (child == nullptr) return -2;
  int code = process_wait(child).code;
  process_destroy(child);
  return code;
}

using ProcessCreate = InScratchDir;

// Whichever step fails, in the caller or in the child, nothing is left
// behind: no descriptor of the call (the redirected streams' included) and
// no uncollected child.
TEST_F(ProcessCreate, StartFailuresAreReportedWithNothingLeftBehind) {
  std::vector<int> before = open_descriptors();
  const char* missing[] = {"/nonexistent/appsrv-missing-program", nullptr};
  const char* shell[] = {"/bin/sh", "-c", "exit 0", nullptr};
  EXPECT_EQ(process_create_job(missing, nullptr), nullptr);
  EXPECT_EQ(process_create_child(missing, PROCESS_INHERIT, nullptr, PROCESS_FILE, "out", nullptr, PROCESS_FILE,
                                 "out", true), nullptr);
  // stdin must name an existing file.
  EXPECT_EQ(process_create_child(shell, PROCESS_FILE, "absent", PROCESS_INHERIT, nullptr, nullptr, PROCESS_INHERIT,
                                 nullptr, false), nullptr);
  // The child's failure comes back as errno.
  const char* quick[] = {"true", nullptr};
  const char* no_path[] = {"PATH=/nonexistent", nullptr};
  process_options unreachable{.argv = quick, .environment = no_path};  // looked up along the child's PATH
  process_options nowhere{.argv = quick, .working_directory = "/nonexistent/appsrv-missing-directory"};
  for (const process_options* options : {&unreachable, &nowhere}) {
    errno = 0;
    EXPECT_EQ(process_spawn(options), nullptr);
    EXPECT_EQ(errno, ENOENT);
  }
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "every failed child was collected";
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ProcessCreate, SignalsDuringTheStartAreNotStartFailures) {
  const char* quick[] = {"/bin/true", nullptr};
  std::vector<process*> children;
  alarms(100, 100);
  for (int i = 0; i < 30; ++i) children.push_back(process_create(quick, nullptr));
  alarms(0, 0);
  for (process* child : children) EXPECT_EQ(finish(child), 0);
}

// Neither a wait that a signal interrupts nor a pid that is not our child
// marks a record collected.
TEST(ProcessWait, InterruptedWaitsAndStrangersLeaveTheRecordUnreaped) {
  process stranger{1, false, 0};
  EXPECT_TRUE(process_alive(&stranger)) << "a pid that is not our child reads as running";
  EXPECT_FALSE(stranger.reaped);
  process* child = process_create(sleeper, nullptr);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(getpgid(child->pid), getpgrp()) << "a plain child stays in our process group";
  alarms(50 * 1000, 0);
  process_status status = process_wait(child);
  EXPECT_EQ(status.code, -1);
  EXPECT_EQ(std::string(status.description), strerror(EINTR));
  EXPECT_FALSE(child->reaped);
  process_kill(child);
  EXPECT_EQ(finish(child), 15);
}

// The caller ignores and blocks signals (the daemon ignores SIGPIPE, the
// runtime blocks its stop signals); none of that may reach the child.
TEST_F(ProcessCreate, StreamsWorkingDirectoryAndSignalsAreTheChildsOwn) {
  write_file("input", "first line\n");
  write_file("output", "old content, longer than what the child writes\n");
  ASSERT_EQ(mkdir("sub", 0755), 0);
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, &previous);
  signal(SIGUSR1, SIG_IGN);
  const char* script[] = {"/bin/sh", "-c", "read line; echo \"$line\"; pwd; echo oops >&2", nullptr};
  // grep on its own: sh clears the mask it is given.
  const char* show[] = {"grep", "-E", "^Sig(Ign|Blk)", "/proc/self/status", nullptr};
  EXPECT_EQ(finish(process_create_child(script, PROCESS_FILE, "input", PROCESS_FILE, "output", "sub", PROCESS_FILE,
                                        "errors", false)), 0);
  EXPECT_EQ(finish(process_create_child(show, PROCESS_INHERIT, nullptr, PROCESS_FILE, "signals", nullptr,
                                        PROCESS_INHERIT, nullptr, false)), 0);
  signal(SIGUSR1, SIG_DFL);
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  EXPECT_EQ(read_file("output"), "first line\n" + std::filesystem::canonical("sub").string() + "\n");
  // Nothing ignored (not even SIGPIPE), nothing blocked.
  EXPECT_EQ(read_file("signals"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
  EXPECT_EQ(read_file("errors"), "oops\n");
  EXPECT_EQ(read_file("input"), "first line\n");  // stdin's file is left alone
}

// A child sees the standard three and a descriptor deliberately made
// inheritable, nothing of the call's own (its redirected files, its report
// pipe) nor what the caller holds close-on-exec.
TEST_F(ProcessCreate, ChildSeesOnlyTheInheritedDescriptor) {
  // Descriptors this binary was started with belong to its launcher; sealed,
  // they leave whatever else the child sees to the library.
  for (int number : open_descriptors())
    if (number > 2) fcntl(number, F_SETFD, FD_CLOEXEC);
  socket_address address{};
  socket_record sock{};
  ASSERT_EQ(socket_address_unix("sock", &address), 0);
  ASSERT_EQ(socket_open(&address, 1, 0, &sock), 0);
  const char* list[] = {APPSRV_LIST_DESCRIPTORS, nullptr};
  for (int inherit : {1, 0}) {
    ASSERT_EQ(socket_inherit(&sock, inherit), 0);
    EXPECT_EQ(finish(process_create_child(list, PROCESS_INHERIT, nullptr, PROCESS_FILE, "listing", nullptr,
                                          PROCESS_INHERIT, nullptr, true)), 0);
    EXPECT_EQ(read_file("listing"), inherit ? "0 1 2 " + std::to_string(sock.descriptor) + "\n" : "0 1 2\n");
  }
  socket_close(&sock);
}

// A child outlives its parent by no more than the parent's end.
TEST(ProcessSpawn, DeathSignalFollowsTheParent) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  pid_t middle = fork();
  if (middle == 0) {
    process_options options{.argv = sleeper, .death_signal = SIGKILL};
    _exit(process_spawn(&options) != nullptr ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(middle, &status, 0), middle);
  ASSERT_EQ(status, 0) << "the child started";
  // The orphan comes back to this process, which has no other child.
  EXPECT_GT(waitpid(-1, &status, 0), 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(ProcessExec, ReplacesTheProcessWithAProgramFoundAlongPath) {
  pid_t pid = fork();
  if (pid == 0) {
    const char* quit[] = {"sh", "-c", "exit 7", nullptr};
    process_exec(quit);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}

}  // namespace

#include "base/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/socket.h"

namespace {

std::vector<int> open_descriptors() {  // the listing's own descriptor is counted every time
  std::vector<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    numbers.push_back(std::stoi(entry.path().filename()));
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// Descriptors this binary was started with belong to its launcher; sealing
// them first means that any descriptor a child sees beyond the standard three
// was leaked by the library.
const bool launcher_sealed = [] {
  for (int number : open_descriptors()) {
    if (number > 2) fcntl(number, F_SETFD, FD_CLOEXEC);
  }
  return true;
}();

struct scratch_dir {
  char path[32] = "/tmp/appsrv-proc-XXXXXX";
  scratch_dir() { EXPECT_NE(mkdtemp(path), nullptr); }
  std::string file(const char* leaf) const { return std::string(path) + "/" + leaf; }
  ~scratch_dir() { std::filesystem::remove_all(path); }
};

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
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

TEST(ProcessCreate, StartFailuresAreReportedWithNothingLeftBehind) {
  scratch_dir dir;
  std::vector<int> before = open_descriptors();
  const char* missing[] = {"/nonexistent/appsrv-missing-program", nullptr};
  const char* missing_on_path[] = {"appsrv-missing-program", nullptr};
  const char* shell[] = {"/bin/sh", "-c", "exit 0", nullptr};
  std::string out = dir.file("out");
  EXPECT_EQ(process_create_job(missing, nullptr), nullptr);
  EXPECT_EQ(process_create(missing_on_path, nullptr), nullptr);
  EXPECT_EQ(process_create_job(shell, "/nonexistent/appsrv-missing-directory"), nullptr);
  // The redirected streams' descriptors are released as well.
  EXPECT_EQ(process_create_child(missing, PROCESS_INHERIT, nullptr, PROCESS_FILE, out.c_str(),
                                 nullptr, PROCESS_FILE, out.c_str(), true), nullptr);
  // stdin must name an existing file.
  EXPECT_EQ(process_create_child(shell, PROCESS_FILE, dir.file("absent").c_str(), PROCESS_INHERIT,
                                 nullptr, nullptr, PROCESS_INHERIT, nullptr, false), nullptr);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "every failed child was collected";
  EXPECT_EQ(errno, ECHILD);
}

TEST(ProcessCreate, SignalsDuringTheStartAreNotStartFailures) {
  const char* quick[] = {"/bin/true", nullptr};
  std::vector<process*> children;
  alarms(100, 100);
  for (int i = 0; i < 30; ++i) children.push_back(process_create(quick, nullptr));
  alarms(0, 0);
  for (process* child : children) EXPECT_EQ(finish(child), 0);
}

TEST(ProcessWait, EndsAreCollectedOnceAndDecodedRepeatably) {
  // {script, signal sent (-1: process_kill), code, description}
  const struct { const char* script; int signal; int code; std::string description; } ends[] = {
      {"exit 3", 0, 3, "failure"}, {"exit 0", 0, 0, "success"},
      {"exec sleep 30", SIGKILL, 9, strsignal(SIGKILL)}, {"exec sleep 30", -1, 15, strsignal(SIGTERM)}};
  for (const auto& end : ends) {
    const char* argv[] = {"/bin/sh", "-c", end.script, nullptr};
    process* child = process_create_job(argv, nullptr);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(end.signal > 0 ? kill(child->pid, end.signal) : end.signal < 0 ? process_kill(child) : 0, 0);
    for (int tries = 0; tries < 500 && process_alive(child); ++tries) usleep(10000);
    EXPECT_TRUE(child->reaped) << "process_alive collects an ended child";
    for (int i = 0; i < 2; ++i) {
      process_status status = process_wait(child);
      EXPECT_EQ(status.code, end.code) << end.script;
      EXPECT_EQ(status.description, end.description) << end.script;
    }
    process_destroy(child);
  }
  process stranger{1, false, 0};
  EXPECT_TRUE(process_alive(&stranger)) << "a pid that is not our child reads as running";
  EXPECT_FALSE(stranger.reaped);
}

TEST(ProcessWait, InterruptedWaitLeavesTheRecordUnreaped) {
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

TEST(ProcessKillJob, ReachesTheGroupAfterTheLeaderWasCollected) {
  // Orphaned grandchildren come back to this process, so their end can be observed exactly.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  scratch_dir dir;
  std::string pid_file = dir.file("grandchild");
  std::string script = "/bin/sleep 30 & echo $! > '" + pid_file + "'";
  const char* leader[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  process* job = process_create_job(leader, nullptr);
  ASSERT_NE(job, nullptr);
  ASSERT_EQ(process_wait(job).code, 0);
  pid_t grandchild = atoi(read_file(pid_file).c_str());
  ASSERT_GT(grandchild, 0);
  EXPECT_EQ(getpgid(grandchild), job->pid);  // the job leads its own group
  EXPECT_EQ(process_kill_job(job), 0);
  int status = 0;
  ASSERT_EQ(waitpid(grandchild, &status, 0), grandchild);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  process_destroy(job);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(ProcessCreate, StreamsAndWorkingDirectoryAreRedirected) {
  scratch_dir dir;
  std::string input = dir.file("input"), output = dir.file("output"), errors = dir.file("errors");
  std::ofstream(input) << "first line\n";
  std::ofstream(output) << "old content, longer than what the child writes\n";
  const char* script[] = {"/bin/sh", "-c", "read line; echo \"$line\"; pwd; echo oops >&2", nullptr};
  EXPECT_EQ(finish(process_create_child(script, PROCESS_FILE, input.c_str(), PROCESS_FILE, output.c_str(), dir.path,
                                        PROCESS_FILE, errors.c_str(), false)), 0);
  EXPECT_EQ(read_file(output), "first line\n" + std::filesystem::canonical(dir.path).string() + "\n");
  EXPECT_EQ(read_file(errors), "oops\n");
  EXPECT_EQ(read_file(input), "first line\n");  // stdin's file is left alone
}

// A child must see only the standard three and the one descriptor that was
// deliberately inherited, whatever else the daemon holds at the time.
TEST(ProcessCreateJob, ChildSeesOnlyTheInheritedDescriptor) {
  ASSERT_TRUE(launcher_sealed);
  scratch_dir dir;
  socket_address node_address{}, worker_address{};
  socket_record node{}, copy{}, worker{}, passed{};
  ASSERT_EQ(socket_address_unix(dir.file("node").c_str(), &node_address), 0);
  ASSERT_EQ(socket_address_unix(dir.file("worker").c_str(), &worker_address), 0);
  ASSERT_EQ(socket_open(&node_address, 1, 0, &node), 0);
  ASSERT_EQ(socket_open(&worker_address, 1, 0, &worker), 0);
  socket_dup(&node, &copy);
  // A descriptor received from a peer, as a stack would get a connection.
  socket_message message{"pass", 4};
  ASSERT_EQ(socket_msg_send_dup(&node, &worker_address, &message, &node), 0);
  int received = 7;
  ASSERT_EQ(socket_msg_recv_dup(&worker, nullptr, &message, &received, &passed), 0);
  ASSERT_EQ(received, 0);

  std::string listing = dir.file("listing");
  const char* list[] = {APPSRV_LIST_DESCRIPTORS, nullptr};
  for (int inherit : {1, 0}) {
    ASSERT_EQ(socket_inherit(&passed, inherit), 0);
    EXPECT_EQ(finish(process_create_child(list, PROCESS_INHERIT, nullptr, PROCESS_FILE, listing.c_str(), nullptr,
                                          PROCESS_INHERIT, nullptr, true)), 0);
    EXPECT_EQ(read_file(listing), inherit ? "0 1 2 " + std::to_string(passed.descriptor) + "\n" : "0 1 2\n");
  }
  for (socket_record* sock : {&node, &copy, &worker, &passed}) socket_close(sock);
}

// Every field of the options at work at once; the caller ignores and blocks
// signals and holds a descriptor left inheritable, none of which may reach
// the child.
TEST(ProcessSpawn, ChildGetsItsOwnStreamsEnvironmentDirectoryAndCleanSignals) {
  ASSERT_TRUE(launcher_sealed);
  scratch_dir dir;
  int stray = open("/dev/null", O_RDONLY);  // no close-on-exec
  std::string status = dir.file("status"), listing = dir.file("listing");
  int status_out = open(status.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  int listing_out = open(listing.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, &previous);
  signal(SIGUSR1, SIG_IGN);

  const char* show[] = {"sh", "-c", "grep -E '^Sig(Ign|Blk)' /proc/self/status; pwd; echo \"$GREETING\"", nullptr};
  const char* environment[] = {"GREETING=hi", "PATH=/usr/bin:/bin", nullptr};
  process_options options{.argv = show, .environment = environment, .working_directory = dir.path};
  options.stdio[1] = status_out;
  EXPECT_EQ(finish(process_spawn(&options)), 0);
  const char* list[] = {APPSRV_LIST_DESCRIPTORS, nullptr};
  process_options sealed{.argv = list, .close_others = true};
  sealed.stdio[1] = listing_out;
  EXPECT_EQ(finish(process_spawn(&sealed)), 0);

  signal(SIGUSR1, SIG_DFL);
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  for (int descriptor : {stray, status_out, listing_out}) close(descriptor);
  // grep's own view: nothing ignored (not even SIGPIPE), nothing blocked.
  EXPECT_EQ(read_file(status), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n" +
                                   std::filesystem::canonical(dir.path).string() + "\nhi\n");
  EXPECT_EQ(read_file(listing), "0 1 2\n");
}

TEST(ProcessSpawn, FailuresComeBackAsErrno) {
  const char* quick[] = {"true", nullptr};
  const char* no_path[] = {"PATH=/nonexistent", nullptr};
  process_options unreachable{.argv = quick, .environment = no_path};  // looked up along the child's PATH
  process_options nowhere{.argv = quick, .working_directory = "/nonexistent/appsrv-missing-directory"};
  for (const process_options* options : {&unreachable, &nowhere}) {
    errno = 0;
    EXPECT_EQ(process_spawn(options), nullptr);
    EXPECT_EQ(errno, ENOENT);
  }
}

// A child outlives its parent by no more than the parent's end.
TEST(ProcessSpawn, DeathSignalFollowsTheParent) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  pid_t middle = fork();
  if (middle == 0) {
    process_options options{.argv = sleeper, .death_signal = SIGKILL};
    process* child = process_spawn(&options);
    pid_t pid = child != nullptr ? child->pid : -1;
    (void)!write(ends[1], &pid, sizeof pid);
    _exit(0);
  }
  close(ends[1]);
  pid_t orphan = -1;
  ASSERT_EQ(read(ends[0], &orphan, sizeof orphan), static_cast<ssize_t>(sizeof orphan));
  close(ends[0]);
  ASSERT_GT(orphan, 0);
  int status = 0;
  ASSERT_EQ(waitpid(middle, &status, 0), middle);
  ASSERT_EQ(waitpid(orphan, &status, 0), orphan);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(ProcessExec, ReplacesTheProcess) {
  scratch_dir dir;
  std::string out = dir.file("out");
  pid_t pid = fork();
  if (pid == 0) {
    freopen(out.c_str(), "w", stdout);
    const char* echo[] = {"echo", "replaced", nullptr};  // found along PATH
    process_exec(echo);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(read_file(out), "replaced\n");
}

}  // namespace

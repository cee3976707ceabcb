#include "base/process.h"

#include <cerrno>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/runtime.h"
#include "base/socket.h"

namespace {

// Descriptors this binary was started with belong to its launcher, not to
// the code under test; sealing them first means that any descriptor a child
// sees beyond the standard three was leaked by the library.
int seal_launcher_descriptors() {
  DIR* directory = opendir("/proc/self/fd");
  std::vector<int> numbers;
  while (dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') numbers.push_back(atoi(entry->d_name));
  }
  closedir(directory);
  for (int number : numbers) {
    if (number > 2) fcntl(number, F_SETFD, FD_CLOEXEC);
  }
  return static_cast<int>(numbers.size());
}
const int launcher_descriptors = seal_launcher_descriptors();

std::vector<int> open_descriptors() {
  DIR* directory = opendir("/proc/self/fd");
  std::vector<int> numbers;
  while (dirent* entry = readdir(directory)) {
    int number = atoi(entry->d_name);
    if (entry->d_name[0] != '.' && number != dirfd(directory)) numbers.push_back(number);
  }
  closedir(directory);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// No child of this process is left, running or unreaped.
bool no_children_left() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

struct scratch_dir {
  std::string path;
  scratch_dir() {
    char name[] = "/tmp/appsrv-proc-XXXXXX";
    path = mkdtemp(name);
  }
  std::string file(const char* leaf) const { return path + "/" + leaf; }
  ~scratch_dir() {
    std::string command = "rm -rf '" + path + "'";
    EXPECT_EQ(system(command.c_str()), 0);
  }
};

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void write_file(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

bool wait_until_ended(process* child) {
  for (int tries = 0; tries < 500; ++tries) {
    if (!process_alive(child)) return true;
    usleep(10000);
  }
  return false;
}

TEST(ProcessCreate, StartFailuresAreReportedWithNothingLeftBehind) {
  scratch_dir dir;
  std::vector<int> before = open_descriptors();

  const char* missing[] = {"/nonexistent/appsrv-missing-program", nullptr};
  EXPECT_EQ(process_create_job(missing, nullptr), nullptr);
  const char* missing_on_path[] = {"appsrv-missing-program", nullptr};
  EXPECT_EQ(process_create(missing_on_path, nullptr), nullptr);
  const char* shell[] = {"/bin/sh", "-c", "exit 0", nullptr};
  EXPECT_EQ(process_create_job(shell, "/nonexistent/appsrv-missing-directory"), nullptr);
  // The redirected streams' descriptors are released as well.
  std::string out = dir.file("out");
  EXPECT_EQ(process_create_child(missing, PROCESS_INHERIT, nullptr, PROCESS_FILE, out.c_str(),
                                 nullptr, PROCESS_FILE, out.c_str(), true),
            nullptr);
  // stdin must name an existing file.
  EXPECT_EQ(process_create_child(shell, PROCESS_FILE, dir.file("absent").c_str(), PROCESS_INHERIT,
                                 nullptr, nullptr, PROCESS_INHERIT, nullptr, false),
            nullptr);

  EXPECT_EQ(open_descriptors(), before);
  EXPECT_TRUE(no_children_left());  // every failed child was collected
}

TEST(ProcessCreate, SignalsDuringTheStartAreNotStartFailures) {
  struct sigaction action{};
  action.sa_handler = [](int) {};  // no SA_RESTART: reads return EINTR
  struct sigaction previous{};
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  itimerval timer{};
  timer.it_value.tv_usec = 100;
  timer.it_interval.tv_usec = 100;
  ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);

  const char* quick[] = {"/bin/true", nullptr};
  std::vector<process*> children;
  for (int i = 0; i < 30; ++i) children.push_back(process_create(quick, nullptr));

  timer = itimerval{};
  setitimer(ITIMER_REAL, &timer, nullptr);
  sigaction(SIGALRM, &previous, nullptr);
  for (process* child : children) {
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(process_wait(child).code, 0);
    process_destroy(child);
  }
}

TEST(ProcessWait, ExitStatusIsCollectedOnceAndDecodedRepeatably) {
  const char* three[] = {"/bin/sh", "-c", "exit 3", nullptr};
  process* child = process_create_job(three, nullptr);
  ASSERT_NE(child, nullptr);
  EXPECT_FALSE(child->reaped);
  ASSERT_TRUE(wait_until_ended(child));
  EXPECT_TRUE(child->reaped);
  EXPECT_FALSE(process_alive(child));
  for (int i = 0; i < 2; ++i) {
    process_status status = process_wait(child);
    EXPECT_EQ(status.code, 3);
    EXPECT_STREQ(status.description, "failure");
  }
  process_destroy(child);

  const char* zero[] = {"/bin/sh", "-c", "exit 0", nullptr};
  child = process_create(zero, nullptr);
  ASSERT_NE(child, nullptr);
  process_status status = process_wait(child);  // blocking collection
  EXPECT_EQ(status.code, 0);
  EXPECT_STREQ(status.description, "success");
  EXPECT_TRUE(child->reaped);
  process_destroy(child);
}

TEST(ProcessWait, SignalEndsAreDecodedByNumber) {
  const std::string killed = strsignal(SIGKILL);
  const std::string terminated = strsignal(SIGTERM);
  const char* sleeper[] = {"/bin/sleep", "30", nullptr};

  process* child = process_create(sleeper, nullptr);
  ASSERT_NE(child, nullptr);
  EXPECT_TRUE(process_alive(child));
  ASSERT_EQ(kill(child->pid, SIGKILL), 0);
  process_status status = process_wait(child);
  EXPECT_EQ(status.code, 9);
  EXPECT_EQ(std::string(status.description), killed);
  process_destroy(child);

  child = process_create(sleeper, nullptr);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(process_kill(child), 0);
  status = process_wait(child);
  EXPECT_EQ(status.code, 15);
  EXPECT_EQ(std::string(status.description), terminated);
  process_destroy(child);
}

TEST(ProcessWait, InterruptedWaitLeavesTheRecordUnreaped) {
  struct sigaction action{};
  action.sa_handler = [](int) {};
  struct sigaction previous{};
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  const char* sleeper[] = {"/bin/sleep", "30", nullptr};
  process* child = process_create(sleeper, nullptr);
  ASSERT_NE(child, nullptr);

  itimerval timer{};
  timer.it_value.tv_usec = 50 * 1000;
  ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
  process_status status = process_wait(child);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_EQ(status.code, -1);
  EXPECT_EQ(std::string(status.description), strerror(EINTR));
  EXPECT_FALSE(child->reaped);

  process_kill(child);
  EXPECT_EQ(process_wait(child).code, 15);
  process_destroy(child);
}

TEST(ProcessAlive, PidThatIsNotOurChildReadsAsRunning) {
  process stranger{1, false, 0};
  EXPECT_TRUE(process_alive(&stranger));
  EXPECT_FALSE(stranger.reaped);
}

TEST(ProcessKillJob, ReachesTheGroupAfterTheLeaderWasCollected) {
  // Orphaned grandchildren come back to this process, so their end can be
  // observed exactly.
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
  EXPECT_NE(getpgid(grandchild), getpgrp());
  EXPECT_EQ(process_kill_job(job), 0);
  int status = 0;
  ASSERT_EQ(waitpid(grandchild, &status, 0), grandchild);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  process_destroy(job);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(ProcessCreate, PlainChildStaysInOurProcessGroup) {
  const char* sleeper[] = {"/bin/sleep", "30", nullptr};
  process* child = process_create(sleeper, nullptr);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(getpgid(child->pid), getpgrp());
  process_kill(child);
  process_wait(child);
  process_destroy(child);
}

TEST(ProcessCreate, StreamsAndWorkingDirectoryAreRedirected) {
  scratch_dir dir;
  std::string input = dir.file("input");
  std::string output = dir.file("output");
  std::string errors = dir.file("errors");
  write_file(input, "first line\n");
  write_file(output, "old content, longer than what the child writes\n");
  const char* script[] = {"/bin/sh", "-c", "read line; echo \"$line\"; pwd; echo oops >&2",
                          nullptr};
  process* child = process_create_child(script, PROCESS_FILE, input.c_str(), PROCESS_FILE,
                                        output.c_str(), dir.path.c_str(), PROCESS_FILE,
                                        errors.c_str(), false);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(process_wait(child).code, 0);
  process_destroy(child);
  char* real = realpath(dir.path.c_str(), nullptr);
  EXPECT_EQ(read_file(output), "first line\n" + std::string(real) + "\n");
  free(real);
  EXPECT_EQ(read_file(errors), "oops\n");
  EXPECT_EQ(read_file(input), "first line\n");  // stdin's file is left alone
}

// A child must see only the standard three and the one descriptor that was
// deliberately inherited, whatever else the daemon holds at the time.
TEST(ProcessCreateJob, ChildSeesOnlyTheInheritedDescriptor) {
  ASSERT_GT(launcher_descriptors, 0);
  scratch_dir dir;
  socket_address address{};
  ASSERT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
  socket_record listener{}, datagram{}, copy{};
  ASSERT_EQ(socket_open(&address, 1, 1, &listener), 0);
  socket_address node{};
  ASSERT_EQ(socket_address_unix(dir.file("node").c_str(), &node), 0);
  ASSERT_EQ(socket_open(&node, 1, 0, &datagram), 0);
  socket_dup(&datagram, &copy);
  ASSERT_GE(copy.descriptor, 0);

  // A descriptor received from a peer, as a stack would get a connection.
  socket_address worker_address{};
  ASSERT_EQ(socket_address_unix(dir.file("worker").c_str(), &worker_address), 0);
  socket_record worker{}, passed{};
  ASSERT_EQ(socket_open(&worker_address, 1, 0, &worker), 0);
  socket_message message{"pass", 4};
  ASSERT_EQ(socket_msg_send_dup(&datagram, &worker_address, &message, &listener), 0);
  int received = 7;
  ASSERT_EQ(socket_msg_recv_dup(&worker, nullptr, &message, &received, &passed), 0);
  ASSERT_EQ(received, 0);

  std::string listing = dir.file("listing");
  const char* list[] = {APPSRV_LIST_DESCRIPTORS, nullptr};
  auto run = [&]() {
    process* child = process_create_child(list, PROCESS_INHERIT, nullptr, PROCESS_FILE,
                                          listing.c_str(), nullptr, PROCESS_INHERIT, nullptr,
                                          true);
    EXPECT_NE(child, nullptr);
    if (child == nullptr) return std::string();
    EXPECT_EQ(process_wait(child).code, 0);
    process_destroy(child);
    return read_file(listing);
  };

  ASSERT_EQ(socket_inherit(&passed, 1), 0);
  EXPECT_EQ(run(), "0 1 2 " + std::to_string(passed.descriptor) + "\n");
  ASSERT_EQ(socket_inherit(&passed, 0), 0);
  EXPECT_EQ(run(), "0 1 2\n");

  for (socket_record* sock : {&listener, &datagram, &copy, &worker, &passed}) socket_close(sock);
}

TEST(ProcessExec, ReplacesTheProcess) {
  int pipe_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(pipe_ends[1], 1);
    const char* echo[] = {"echo", "replaced", nullptr};  // found along PATH
    process_exec(echo);
  }
  close(pipe_ends[1]);
  char buffer[32] = {};
  ssize_t got = read(pipe_ends[0], buffer, sizeof buffer - 1);
  close(pipe_ends[0]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(std::string(buffer, got > 0 ? got : 0), "replaced\n");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace

// The stack manager run for real: a temporary working directory, the test
// bootstrap program as every stack's program, real processes and sockets.
#include "stackman/stackman.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/hash.h"
#include "base/runtime.h"
#include "stackman/internal.h"

namespace {

// Descriptors this binary got from its launcher are not the manager's to
// pass on; sealing them first makes any further descriptor a stack sees a
// leak of the manager's own.
bool seal_launcher_descriptors() {
  DIR* directory = opendir("/proc/self/fd");
  std::vector<int> numbers;
  while (dirent* entry = readdir(directory))
    if (entry->d_name[0] != '.') numbers.push_back(atoi(entry->d_name));
  closedir(directory);
  for (int number : numbers)
    if (number > 2) fcntl(number, F_SETFD, FD_CLOEXEC);
  return true;
}
const bool launcher_descriptors_sealed = seal_launcher_descriptors();

std::string key_of(char c) { return std::string(64, c); }

std::string read_file(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  std::string contents;
  char chunk[4096];
  for (size_t got; (got = fread(chunk, 1, sizeof chunk, f)) > 0;) contents.append(chunk, got);
  fclose(f);
  return contents;
}

void write_file(const std::string& path, const std::string& contents) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr) << path;
  fwrite(contents.data(), 1, contents.size(), f);
  fclose(f);
}

bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

bool eventually(const std::function<bool()>& condition, int milliseconds = 5000) {
  for (int waited = 0; waited < milliseconds; waited += 10) {
    if (condition()) return true;
    usleep(10000);
  }
  return condition();
}

bool process_gone(pid_t pid) {
  std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  if (stat == "<missing>") return true;
  size_t paren = stat.rfind(')');
  return paren != std::string::npos && stat.size() > paren + 2 && stat[paren + 2] == 'Z';
}

std::string read_line(int fd) {
  std::string line;
  char c;
  while (read(fd, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

void bind_socket_file(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(fd);
}

class StackmanTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/appsrv-stackman-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    ASSERT_NE(getcwd(previous_, sizeof previous_), nullptr);
    ASSERT_EQ(chdir(root_.c_str()), 0);
    ASSERT_EQ(system("mkdir -p runenv/image runenv/test-control data"), 0);
    install_bootstrap();
  }

  void TearDown() override {
    stackman_reset();
    ASSERT_EQ(chdir(previous_), 0);
    ASSERT_EQ(system(("rm -rf '" + root_ + "'").c_str()), 0);
  }

  void install_bootstrap() {
    ASSERT_EQ(symlink(TEST_BOOTSTRAP, "runenv/image/application-server-bootstrap"), 0);
  }
  void remove_bootstrap() { ASSERT_EQ(unlink("runenv/image/application-server-bootstrap"), 0); }

  void open_manager() { stackman_open("./runenv", "./stacks", "./data"); }

  void behave(const std::string& name, const std::string& directives) {
    write_file("runenv/test-control/" + name, directives);
  }

  void make_store(const std::string& key, const std::string& name, bool deployed) {
    ASSERT_EQ(system(("mkdir -p data/" + key + "/serv").c_str()), 0);
    write_file("data/" + key + "/serv/name", name);
    write_file("data/" + key + "/serv/image", "image of " + name);
    if (deployed) write_file("data/" + key + "/serv/deployed", "");
  }

  static std::string log_of(const std::string& key) { return read_file("runenv/test-log/" + key + ".log"); }

  static bool logged(const std::string& key, const std::string& text) {
    return eventually([&] { return log_of(key).find(text) != std::string::npos; });
  }

  // Runs supervision passes until the stack leaves `state` (or 5 s pass).
  static bool supervise_until_not(const char* name, uint32_t state) {
    return eventually([&] {
      stackman_loop();
      stackman_stack* stack = stackman_get(name);
      return stack == nullptr || stack->state != state;
    });
  }

  std::string root_;
  char previous_[4096];
};

struct Connection {
  int peer = -1;
  socket_record record{};
  Connection() {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    peer = pair[0];
    EXPECT_EQ(socket_load(pair[1], &record), 0);
  }
  ~Connection() {
    socket_close(&record);
    close(peer);
  }
  bool close_on_exec() const { return fcntl(record.descriptor, F_GETFD) & FD_CLOEXEC; }
};

std::string stack_entries(const char* root) {
  std::string listing;
  FILE* pipe = popen((std::string("ls -A ") + root).c_str(), "r");
  char line[512];
  while (fgets(line, sizeof line, pipe) != nullptr) listing += line;
  pclose(pipe);
  return listing;
}

}  // namespace

TEST(StackNames, ValidationRules) {
  EXPECT_EQ(stackman_validate_name("a/b c.d"), 0);
  EXPECT_EQ(stackman_validate_name(std::string(1023, 'n').c_str()), 0);
  EXPECT_EQ(stackman_validate_name("\x01\x1f\x7f\xc3\xa9"), 0) << "other control bytes and UTF-8 are allowed";
  EXPECT_EQ(stackman_validate_name(""), -1);
  EXPECT_EQ(stackman_validate_name(std::string(1024, 'n').c_str()), -1);
  for (char c : {'\a', '\b', '\f', '\n', '\r', '\t', '\v'}) {
    std::string name = "ab";
    name.insert(1, 1, c);
    EXPECT_EQ(stackman_validate_name(name.c_str()), -1) << static_cast<int>(c);
  }
}

TEST_F(StackmanTest, RecoveryStartsDeployedStoresAndMarksTheOthersUndeployed) {
  make_store(key_of('a'), "alpha", true);
  make_store(key_of('b'), "beta", false);
  ASSERT_EQ(system(("mkdir -p stacks/" + key_of('a') + " && touch stacks/" + key_of('a') + "/old").c_str()), 0);
  write_file("data/.hidden", "not a store");
  open_manager();

  EXPECT_TRUE(exists("private/node"));
  stackman_stack* alpha = stackman_get("alpha");
  stackman_stack* beta = stackman_get("beta");
  ASSERT_NE(alpha, nullptr);
  ASSERT_NE(beta, nullptr);
  EXPECT_EQ(alpha->state, STACKMAN_RUNNING);
  EXPECT_NE(alpha->job, nullptr);
  EXPECT_EQ(beta->state, STACKMAN_UNDEPLOYED);
  EXPECT_EQ(beta->job, nullptr);
  EXPECT_EQ(stackman_is_running(), 1u);
  EXPECT_EQ(stackman_get("Alpha"), nullptr) << "lookups are case-sensitive";

  ASSERT_TRUE(logged(key_of('a'), "ready"));
  std::string log = log_of(key_of('a'));
  EXPECT_NE(log.find("args ./stacks/" + key_of('a') + "|alpha|./runenv|./data/" + key_of('a') + "|--\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("fds 0 1 2\n"), std::string::npos) << "a stack inherits nothing but the standard three\n" << log;
  EXPECT_NE(log.find("pgid=" + std::to_string(alpha->job->pid)), std::string::npos) << "each stack leads its group";
  EXPECT_FALSE(exists("stacks/" + key_of('a') + "/old")) << "the stack path is emptied before the start";
  EXPECT_FALSE(exists("stacks/" + key_of('b')));

  stackman_loop();
  EXPECT_EQ(stackman_get("beta"), nullptr);
  EXPECT_FALSE(exists("data/" + key_of('b')));
  EXPECT_TRUE(exists("data/.hidden"));
  EXPECT_EQ(stackman_get("alpha"), alpha);
}

TEST_F(StackmanTest, RecoveryWithoutTheBootstrapLeavesStacksIdleAndSaysNothing) {
  remove_bootstrap();
  make_store(key_of('c'), "gamma", true);
  testing::internal::CaptureStderr();
  open_manager();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_NE(stackman_get("gamma"), nullptr);
  EXPECT_EQ(stackman_get("gamma")->state, STACKMAN_IDLE);
  EXPECT_STREQ(stackman_strerror(), "spawn child");
  EXPECT_EQ(stackman_is_running(), 0u);
}

TEST_F(StackmanTest, RecoverySkipsEntriesTooLongForAKey) {
  std::string long_name(65, 'f');
  make_store(long_name, "too long", true);
  testing::internal::CaptureStderr();
  open_manager();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("] Error: ignoring '" + long_name + "' in the data root, not a stack key\n"), std::string::npos)
      << err;
  EXPECT_EQ(stackman_get("too long"), nullptr);
  EXPECT_TRUE(exists("data/" + long_name));
}

using StackmanDeathTest = StackmanTest;

TEST_F(StackmanDeathTest, EveryStartupCheckEndsTheProcessWithItsMessage) {
  ASSERT_EQ(rmdir("data"), 0);
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), "^\\[[0-9]+\\] Error: directory './data' is missing\n$");
  EXPECT_TRUE(exists("private")) << "the other directories were made first";
  EXPECT_TRUE(exists("stacks"));

  ASSERT_EQ(mkdir("data", 0755), 0);
  ASSERT_EQ(rmdir("stacks"), 0);
  write_file("stacks", "");
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), "Error: './stacks' is a file, but must be a directory\n");
  ASSERT_EQ(unlink("stacks"), 0);
  bind_socket_file("stacks");
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), "Error: './stacks' is a socket, but must be a directory\n");
  ASSERT_EQ(unlink("stacks"), 0);
  ASSERT_EQ(mkfifo("stacks", 0644), 0);
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), "Error: './stacks' is not a directory\n");
  ASSERT_EQ(unlink("stacks"), 0);

  ASSERT_EQ(system("mkdir -p private/node/busy"), 0);
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), "Unable to open os-node socket: Address already in use\n");
  ASSERT_EQ(system("rm -rf private/node"), 0);
}

TEST_F(StackmanDeathTest, UnrecoverableStoresEndTheStart) {
  const std::string prefix = "Fatal error: unable to recover state from file-system, ";
  ASSERT_EQ(system(("mkdir -p data/" + key_of('1') + "/serv").c_str()), 0);
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), prefix + "name-tag missing\n");

  // A socket file passes the existence test but cannot be opened, even by root.
  bind_socket_file("data/" + key_of('1') + "/serv/name");
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), prefix + "load-name\n");
  ASSERT_EQ(unlink(("data/" + key_of('1') + "/serv/name").c_str()), 0);

  write_file("data/" + key_of('1') + "/serv/name", "");
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), prefix + "set-name\n");

  write_file("data/" + key_of('1') + "/serv/name", "twin");
  make_store(key_of('2'), "twin", false);
  EXPECT_EXIT(open_manager(), testing::ExitedWithCode(1), prefix + "set-name\n");
  ASSERT_EQ(system(("rm -rf data/" + key_of('2')).c_str()), 0);

  // The os-worker address of a stack under a long stacks root does not fit.
  EXPECT_EXIT(stackman_open("./runenv", "./stacks-under-a-root-whose-name-is-long", "./data"),
              testing::ExitedWithCode(1), "Invalid unix socket path: File name too long\n");
}

TEST_F(StackmanTest, LongNameTagsAreCutTo1023Bytes) {
  make_store(key_of('d'), std::string(1500, 'n'), false);
  open_manager();
  EXPECT_NE(stackman_get(std::string(1023, 'n').c_str()), nullptr);
}

TEST_F(StackmanTest, DeploymentStoresTheStackAndHandsItTheConnection) {
  behave("app", "marker");
  open_manager();
  Connection connection;
  const std::string image = "#!/bin/sh\necho hi\n";
  stackman_stack* stack = stackman_stack_allocate("app", image.data(), image.size(), &connection.record);
  ASSERT_NE(stack, nullptr) << stackman_strerror();
  EXPECT_EQ(stack->state, STACKMAN_RUNNING);
  EXPECT_TRUE(connection.close_on_exec()) << "the connection is inheritable only while the stack starts";

  std::string key = stack->key;
  EXPECT_EQ(key.size(), 64u);
  EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(read_file("data/" + key + "/serv/name"), "app");
  EXPECT_EQ(read_file("data/" + key + "/serv/image"), image);

  std::string fd = std::to_string(connection.record.descriptor);
  socket_close(&connection.record);
  EXPECT_EQ(read_line(connection.peer), "deployed app") << "the stack answers on the inherited connection";
  ASSERT_TRUE(logged(key, "ready"));
  std::string log = log_of(key);
  EXPECT_NE(log.find("|--|--deploy|" + fd + "\n"), std::string::npos) << log;
  EXPECT_NE(log.find("fds 0 1 2 " + fd + "\n"), std::string::npos) << log;
  EXPECT_TRUE(exists("data/" + key + "/serv/deployed"));

  stackman_stack_destroy(stack);
  EXPECT_FALSE(exists("data/" + key));
  EXPECT_FALSE(exists("stacks/" + key));
  EXPECT_EQ(stackman_get("app"), nullptr);
}

TEST_F(StackmanTest, DeploymentKeysDifferByNameAndEmptyImagesAreStored) {
  behave("default", "marker");
  open_manager();
  Connection first, second;
  stackman_stack* one = stackman_stack_allocate("one", "", 0, &first.record);
  stackman_stack* two = stackman_stack_allocate("two", "", 0, &second.record);
  ASSERT_NE(one, nullptr);
  ASSERT_NE(two, nullptr);
  EXPECT_STRNE(one->key, two->key);
  EXPECT_EQ(read_file(std::string("data/") + one->key + "/serv/image"), "");

  std::string before = stack_entries("data");
  Connection third;
  EXPECT_EQ(stackman_stack_allocate("one", "x", 1, &third.record), nullptr);
  EXPECT_STREQ(stackman_strerror(), "`key` not unique");
  EXPECT_EQ(stack_entries("data"), before) << "a taken name makes nothing on disk";
}

TEST_F(StackmanTest, FailedDeploymentsLeaveNothingBehind) {
  open_manager();
  Connection connection;
  remove_bootstrap();
  EXPECT_EQ(stackman_stack_allocate("app", "img", 3, &connection.record), nullptr);
  EXPECT_STREQ(stackman_strerror(), "spawn child");
  EXPECT_TRUE(connection.close_on_exec());
  install_bootstrap();
  EXPECT_EQ(stack_entries("data"), "");
  EXPECT_EQ(stack_entries("stacks"), "");

  ASSERT_EQ(rmdir("stacks"), 0);
  EXPECT_EQ(stackman_stack_allocate("app", "img", 3, &connection.record), nullptr);
  EXPECT_STREQ(stackman_strerror(), "mkdir stack path");
  ASSERT_EQ(mkdir("stacks", 0755), 0);

  ASSERT_EQ(rename("data", "data.away"), 0);
  EXPECT_EQ(stackman_stack_allocate("app", "img", 3, &connection.record), nullptr);
  EXPECT_STREQ(stackman_strerror(), "mkdir store path");
  EXPECT_EQ(stack_entries("stacks"), "");
  ASSERT_EQ(rename("data.away", "data"), 0);
}

// A full disk, as the file-size limit makes it: the write of the name-tag or
// of the image fails, and the deployment with it, leaving nothing behind
// rather than starting a stack on a cut image.
TEST_F(StackmanTest, AWriteThatFailsFailsTheDeployment) {
  behave("default", "marker");
  open_manager();
  Connection connection;
  rlimit previous{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
  sighandler_t old_handler = signal(SIGXFSZ, SIG_IGN);
  rlimit small = previous;
  small.rlim_cur = 100;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string image(5000, 'i');
  stackman_stack* cut_image = stackman_stack_allocate("app", image.data(), image.size(), &connection.record);
  const std::string image_error = stackman_strerror() != nullptr ? stackman_strerror() : "";
  std::string long_name(200, 'n');
  stackman_stack* cut_name = stackman_stack_allocate(long_name.c_str(), "x", 1, &connection.record);
  const std::string name_error = stackman_strerror() != nullptr ? stackman_strerror() : "";
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &previous), 0);
  signal(SIGXFSZ, old_handler);

  EXPECT_EQ(cut_image, nullptr);
  EXPECT_EQ(image_error, "store image");
  EXPECT_EQ(cut_name, nullptr);
  EXPECT_EQ(name_error, "store name-tag");
  EXPECT_EQ(stack_entries("data"), "");
  EXPECT_EQ(stack_entries("stacks"), "");
  EXPECT_EQ(stackman_get("app"), nullptr);
  EXPECT_TRUE(connection.close_on_exec());
}

namespace {

// The key a deployment will make, given the time and the next rand() value.
std::string predict_key(const std::string& name, const std::string& image, time_t now, int random_value) {
  hash_context context;
  hash_open(&context, HASH_SHA256);
  hash_write(&context, &now, sizeof now);
  hash_write(&context, name.data(), name.size());
  hash_write(&context, image.data(), image.size());
  hash_write(&context, &random_value, sizeof random_value);
  uint8_t digest[32];
  hash_close(&context, digest);
  char text[65];
  hash_maphex(HASH_SHA256, digest, text);
  return text;
}

}  // namespace

TEST_F(StackmanTest, ACollidingDirectoryIsNeverRemoved) {
  open_manager();
  Connection connection;
  for (const char* root : {"data", "stacks"}) {
    bool same_second = false;
    for (int attempt = 0; attempt < 3 && !same_second; ++attempt) {
      srand(7);
      int random_value = rand();
      srand(7);
      time_t now = time(nullptr);
      std::string key = predict_key("app", "img", now, random_value);
      std::string taken = std::string(root) + "/" + key;
      ASSERT_EQ(system(("mkdir -p " + taken + " && touch " + taken + "/keep").c_str()), 0);
      stackman_stack* stack = stackman_stack_allocate("app", "img", 3, &connection.record);
      same_second = time(nullptr) == now;
      if (!same_second) {
        if (stack != nullptr) stackman_stack_destroy(stack);
        ASSERT_EQ(system(("rm -rf " + taken).c_str()), 0);
        continue;
      }
      EXPECT_EQ(stack, nullptr);
      EXPECT_STREQ(stackman_strerror(), std::string(root) == "data" ? "mkdir store path" : "mkdir stack path");
      EXPECT_TRUE(exists(taken + "/keep")) << "a directory the deployment did not make stays";
      EXPECT_EQ(stackman_get("app"), nullptr);
      ASSERT_EQ(system(("rm -rf " + taken).c_str()), 0);
    }
    EXPECT_EQ(stack_entries("stacks"), "");
  }
}

TEST_F(StackmanTest, SupervisionReportsEndedStacksAndSettlesTheirStates) {
  make_store(key_of('e'), "ends", true);
  behave("ends", "exit 0");
  open_manager();
  testing::internal::CaptureStderr();
  EXPECT_TRUE(supervise_until_not("ends", STACKMAN_RUNNING));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("] Error: stack '" + key_of('e') + "'[ends] unexpected exit, success (0)\n"), std::string::npos)
      << err;
  ASSERT_NE(stackman_get("ends"), nullptr) << "a deployed stack stays";
  EXPECT_EQ(stackman_get("ends")->state, STACKMAN_IDLE);
  EXPECT_EQ(stackman_get("ends")->job, nullptr);

  behave("killed", "signal 9");
  Connection connection;
  stackman_stack* killed = stackman_stack_allocate("killed", "img", 3, &connection.record);
  ASSERT_NE(killed, nullptr);
  std::string key = killed->key;
  testing::internal::CaptureStderr();
  EXPECT_TRUE(supervise_until_not("killed", STACKMAN_RUNNING));
  err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("'[killed] unexpected exit, " + std::string(strsignal(9)) + " (9)\n"), std::string::npos) << err;
  EXPECT_EQ(stackman_get("killed"), nullptr) << "a deployment that never completed is removed";
  EXPECT_FALSE(exists("data/" + key));
  EXPECT_FALSE(exists("stacks/" + key));
}

TEST_F(StackmanTest, StoppingStacksReportOnlyABadExit) {
  make_store(key_of('1'), "clean", true);
  make_store(key_of('2'), "dirty", true);
  behave("dirty", "shutdown-exit 2");
  open_manager();
  ASSERT_TRUE(logged(key_of('1'), "ready"));
  ASSERT_TRUE(logged(key_of('2'), "ready"));
  EXPECT_EQ(stackman_signal(stackman_get("clean"), STACKMAN_SHUTDOWN), 0);
  EXPECT_EQ(stackman_signal(stackman_get("dirty"), STACKMAN_SHUTDOWN), 0);
  EXPECT_EQ(stackman_get("clean")->state, STACKMAN_STOPPING);
  EXPECT_EQ(stackman_is_running(), 2u);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(supervise_until_not("clean", STACKMAN_STOPPING));
  EXPECT_TRUE(supervise_until_not("dirty", STACKMAN_STOPPING));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "[" + std::to_string(getpid()) + "] Error: stack '" + key_of('2') +
                     "'[dirty] failed to exit properly, failure (2)\n");
  EXPECT_EQ(stackman_get("clean")->state, STACKMAN_IDLE);
  EXPECT_EQ(stackman_get("dirty")->state, STACKMAN_IDLE);
  EXPECT_EQ(stackman_is_running(), 0u);
}

TEST_F(StackmanTest, WhatAnEndedLeaderLeftInItsGroupIsStopped) {
  make_store(key_of('g'), "parent", true);
  behave("parent", "grandchild\nexit 3");
  open_manager();
  ASSERT_TRUE(logged(key_of('g'), "grandchild "));
  std::string log = log_of(key_of('g'));
  pid_t grandchild = atoi(log.substr(log.find("grandchild ") + 11).c_str());
  ASSERT_GT(grandchild, 0);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(supervise_until_not("parent", STACKMAN_RUNNING));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("unexpected exit, failure (3)"), std::string::npos);
  EXPECT_TRUE(eventually([&] { return process_gone(grandchild); }));
}

TEST_F(StackmanTest, DestroyAndKilljobEndTheWholeGroup) {
  make_store(key_of('1'), "doomed", true);
  make_store(key_of('2'), "kept", true);
  make_store(key_of('3'), "stubborn", true);
  behave("doomed", "grandchild");
  behave("stubborn", "ignore-term\ngrandchild-ignore-term");
  open_manager();
  ASSERT_TRUE(logged(key_of('1'), "ready"));
  ASSERT_TRUE(logged(key_of('3'), "ready"));
  std::string log = log_of(key_of('1'));
  pid_t grandchild = atoi(log.substr(log.find("grandchild ") + 11).c_str());

  stackman_stack_destroy(stackman_get("doomed"));
  EXPECT_EQ(stackman_get("doomed"), nullptr);
  EXPECT_FALSE(exists("data/" + key_of('1')));
  EXPECT_FALSE(exists("stacks/" + key_of('1')));
  EXPECT_TRUE(eventually([&] { return process_gone(grandchild); }));

  stackman_stack* kept = stackman_get("kept");
  stackman_stack_killjob(kept);
  EXPECT_EQ(kept->state, STACKMAN_IDLE);
  EXPECT_EQ(kept->job, nullptr);
  EXPECT_TRUE(exists("data/" + key_of('2')));
  stackman_stack_killjob(kept);  // no job: nothing happens
  EXPECT_EQ(kept->state, STACKMAN_IDLE);

  stackman_stack* stubborn = stackman_get("stubborn");
  pid_t leader = stubborn->job->pid;
  log = log_of(key_of('3'));
  pid_t stubborn_child = atoi(log.substr(log.find("grandchild ") + 11).c_str());
  testing::internal::CaptureStderr();
  int64_t started = runtime_getclock();
  stackman_stack_killjob(stubborn);
  int64_t took = runtime_getclock() - started;
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_GE(took, 5000);
  EXPECT_LT(took, 7000);
  EXPECT_NE(err.find("Error: stack '" + key_of('3') + "'[stubborn] did not stop in time, killed\n"), std::string::npos)
      << err;
  EXPECT_TRUE(process_gone(leader));
  EXPECT_TRUE(eventually([&] { return process_gone(stubborn_child); }));
  EXPECT_EQ(stubborn->state, STACKMAN_IDLE);
}

TEST_F(StackmanTest, RenameRewritesTheNameTagAndTellsTheStack) {
  make_store(key_of('1'), "old", true);
  make_store(key_of('2'), "other", true);
  open_manager();
  ASSERT_TRUE(logged(key_of('1'), "ready"));
  stackman_stack* stack = stackman_get("old");
  EXPECT_EQ(stackman_stack_rename(stack, "new"), stack);
  EXPECT_EQ(read_file("data/" + key_of('1') + "/serv/name"), "new");
  EXPECT_TRUE(logged(key_of('1'), "message 0 new\n"));
  EXPECT_EQ(stackman_get("new"), stack);
  EXPECT_EQ(stackman_get("old"), nullptr);

  EXPECT_EQ(stackman_stack_rename(stack, "new"), nullptr);
  EXPECT_STREQ(stackman_strerror(), "`key` not unique");
  EXPECT_EQ(stackman_stack_rename(stack, "other"), nullptr);
  EXPECT_EQ(read_file("data/" + key_of('1') + "/serv/name"), "new");

  std::string longest(1023, 'L');
  EXPECT_EQ(stackman_stack_rename(stack, longest.c_str()), stack);
  EXPECT_EQ(read_file("data/" + key_of('1') + "/serv/name"), longest);
}

TEST_F(StackmanTest, RenameOfAnUnreachableStackStillCounts) {
  make_store(key_of('1'), "deaf", true);
  behave("deaf", "no-bind");
  open_manager();
  ASSERT_TRUE(logged(key_of('1'), "fds"));
  testing::internal::CaptureStderr();
  stackman_stack* stack = stackman_get("deaf");
  EXPECT_EQ(stackman_stack_rename(stack, "renamed"), stack);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("] Failed to notify stack of rename to '" + key_of('1') + "'[renamed], "), std::string::npos)
      << err;
  EXPECT_EQ(read_file("data/" + key_of('1') + "/serv/name"), "renamed");

  ASSERT_EQ(system(("rm -rf data/" + key_of('1') + "/serv").c_str()), 0);
  EXPECT_EQ(stackman_stack_rename(stack, "again"), nullptr);
  EXPECT_STREQ(stackman_strerror(), "name-tag not found");
  EXPECT_STREQ(stack->name, "again") << "the record keeps the new name";
}

TEST_F(StackmanTest, HandOverPassesALiveConnection) {
  make_store(key_of('1'), "live", true);
  open_manager();
  ASSERT_TRUE(logged(key_of('1'), "ready"));
  Connection connection;
  EXPECT_EQ(stackman_upgrade_connection(stackman_get("live"), &connection.record), 0);
  socket_close(&connection.record);
  EXPECT_EQ(read_line(connection.peer), "hello live");
  EXPECT_TRUE(logged(key_of('1'), "message 2 fd\n"));
}

TEST_F(StackmanTest, HandOverToAnIdleStackStartsItInstead) {
  remove_bootstrap();
  make_store(key_of('1'), "sleepy", true);
  open_manager();
  stackman_stack* stack = stackman_get("sleepy");
  ASSERT_EQ(stack->state, STACKMAN_IDLE);
  Connection connection;
  EXPECT_EQ(stackman_upgrade_connection(stack, &connection.record), -1);
  EXPECT_STREQ(stackman_strerror(), "spawn child");
  EXPECT_EQ(stack->state, STACKMAN_IDLE);

  install_bootstrap();
  EXPECT_EQ(stackman_upgrade_connection(stack, &connection.record), -1);
  EXPECT_STREQ(stackman_strerror(), "resurrecting dead stack");
  EXPECT_EQ(stack->state, STACKMAN_RUNNING);
  ASSERT_TRUE(logged(key_of('1'), "ready"));
  EXPECT_EQ(stackman_upgrade_connection(stack, &connection.record), 0);
  socket_close(&connection.record);
  EXPECT_EQ(read_line(connection.peer), "hello sleepy");
}

TEST_F(StackmanTest, BroadcastReachesRunningStacksAndCountsTheUnreachable) {
  testing::internal::CaptureStderr();
  stackman_broadcast(STACKMAN_SHUTDOWN);
  make_store(key_of('1'), "one", true);
  make_store(key_of('2'), "two", true);
  make_store(key_of('3'), "deaf", true);
  behave("deaf", "no-bind");
  open_manager();
  stackman_stack_killjob(stackman_get("two"));
  ASSERT_TRUE(logged(key_of('1'), "ready"));
  ASSERT_TRUE(logged(key_of('3'), "fds"));
  stackman_broadcast(STACKMAN_SHUTDOWN);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "[" + std::to_string(getpid()) + "] Error: failed to broadcast signal to `1` stacks\n");
  EXPECT_EQ(stackman_get("one")->state, STACKMAN_STOPPING);
  EXPECT_EQ(stackman_get("deaf")->state, STACKMAN_STOPPING);
  EXPECT_EQ(stackman_get("two")->state, STACKMAN_IDLE) << "only running stacks are told";
  EXPECT_TRUE(logged(key_of('1'), "shutdown-exit"));
  EXPECT_TRUE(supervise_until_not("one", STACKMAN_STOPPING));
  EXPECT_EQ(stackman_get("deaf")->state, STACKMAN_STOPPING);
}

TEST_F(StackmanTest, IterationGoesFromNewestToOldest) {
  open_manager();
  stackman_iter iterator{};
  EXPECT_EQ(stackman_iter_begin(&iterator), nullptr);
  EXPECT_EQ(iterator.current, nullptr) << "an empty list leaves the iterator untouched";
  stackman_stack_create(key_of('1').c_str(), "first");
  stackman_stack_create(key_of('2').c_str(), "second");
  EXPECT_EQ(stackman_stack_create(key_of('3').c_str(), "first"), nullptr);
  std::vector<std::string> names;
  for (stackman_stack* s = stackman_iter_begin(&iterator); s != nullptr; s = stackman_iter_move(&iterator))
    names.push_back(iterator.name);
  EXPECT_EQ(names, (std::vector<std::string>{"second", "first"}));
  EXPECT_EQ(stackman_iter_move(&iterator), nullptr);
}

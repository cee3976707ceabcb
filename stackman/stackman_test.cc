// The stack manager run for real: a temporary working directory, the test
// bootstrap program as every stack's program, real processes and sockets.
#include "stackman/stackman.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/daemon.h"

using namespace e2e;

namespace {

// Descriptors this binary got from its launcher are not the manager's to pass
// on; sealing them makes any further descriptor a stack sees a leak of ours.
const int launcher_descriptors_sealed = close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);

std::string key_of(char c) { return std::string(64, c); }
void shell(const std::string& command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

// Every path under the two roots, sorted.
std::string tree() {
  std::string text;
  FILE* pipe = popen("find data stacks 2>/dev/null | sort", "r");
  for (int c; (c = fgetc(pipe)) != EOF;) text += static_cast<char>(c);
  pclose(pipe);
  return text;
}

std::string stderr_of(const std::function<void()>& action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

// One line as the manager writes it to the standard error.
std::string line(const std::string& text) { return "[" + std::to_string(getpid()) + "] " + text + "\n"; }

// Stages `image` as the request handler does, in one piece, and deploys it.
stackman_stack* deploy(const std::string& name, const std::string& image, socket_record* connection) {
  stackman_image staged;
  stackman_image_begin(&staged, name.c_str());
  stackman_image_write(&staged, image.data(), image.size());
  return stackman_stack_allocate(name.c_str(), &staged, connection);
}

// A client's connection: the manager's end in `record`, the client's in `peer`.
struct Client {
  int peer = -1;
  socket_record record{};
  Client() {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    peer = pair[0];
    EXPECT_EQ(socket_load(pair[1], &record), 0);
  }
  ~Client() { socket_close(&record), close(peer); }
  bool close_on_exec() const { return fcntl(record.descriptor, F_GETFD) & FD_CLOEXEC; }
  // The line a stack answers the client once the manager's end is closed.
  std::string answer() {
    socket_close(&record);
    std::string text;
    for (char c; read(peer, &c, 1) == 1 && c != '\n';) text += c;
    return text;
  }
};

// The manager in this process, in the working directory a daemon would have.
class StackmanTest : public testing::Test {
 protected:
  StackmanTest() { std::filesystem::current_path(dir_.path("")); }
  ~StackmanTest() override { stackman_reset(); }

  static void bootstrap(bool present) {
    const char* path = "runenv/image/application-server-bootstrap";
    ASSERT_EQ(present ? symlink(TEST_BOOTSTRAP, path) : unlink(path), 0);
  }
  static void open_manager() { stackman_open("./runenv", "./stacks", "./data"); }
  // A store as a deployment leaves it, and what its stack is told to do.
  void make_store(const std::string& key, const std::string& name, bool deployed, const std::string& how = "") {
    shell("mkdir -p data/" + key + "/serv" + (deployed ? " && touch data/" + key + "/serv/deployed" : ""));
    write_file("data/" + key + "/serv/name", name);
    dir_.behave(name, how);
  }
  bool logged(const std::string& name, const std::string& text) {
    return eventually([&] { return contains(dir_.log_of_stack(name), text); });
  }
  pid_t grandchild_of(const std::string& name) {
    const std::string log = dir_.log_of_stack(name);
    const char* at = strstr(log.c_str(), "grandchild ");
    return at == nullptr ? 0 : atoi(at + 11);
  }
  // Runs supervision passes until the stack leaves `state` (or 5 s pass).
  static bool supervise_until_not(const char* name, uint32_t state) {
    return eventually([&] {
      stackman_loop();
      return stackman_get(name) == nullptr || stackman_get(name)->state != state;
    });
  }

  // A deployment that fails with `error`, leaves the disk as it found it and
  // the connection closed on exec; `file_limit` bounds the files it may write.
  static void expect_failed_deploy(const char* error, const std::string& name = "app",
                                   const std::string& image = "img", rlim_t file_limit = RLIM_INFINITY) {
    const std::string before = tree();
    stackman_stack* existing = stackman_get(name.c_str());
    Client client;
    rlimit saved{}, limited{};
    getrlimit(RLIMIT_FSIZE, &saved);
    limited = {std::min(file_limit, saved.rlim_cur), saved.rlim_max};
    sighandler_t handler = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limited);
    EXPECT_EQ(deploy(name, image, &client.record), nullptr);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, handler);
    EXPECT_STREQ(stackman_strerror(), error);
    EXPECT_EQ(tree(), before) << "nothing it made is left, nothing it found is removed";
    EXPECT_EQ(stackman_get(name.c_str()), existing);
    EXPECT_TRUE(client.close_on_exec());
  }

  Daemon dir_;  // never started: its directory, the bootstrap and the directives
};

using StackmanDeathTest = StackmanTest;

}  // namespace

TEST_F(StackmanDeathTest, EveryStartupCheckEndsTheProcessWithItsMessage) {
  const std::string lost = "Fatal error: unable to recover state from file-system, ";
  struct Case { std::string setup, socket, message, stacks = "./stacks"; };
  const Case cases[] = {
      {"rmdir data", "", "Error: directory './data' is missing"},
      {"touch stacks", "", "Error: './stacks' is a file, but must be a directory"},
      {"", "stacks", "Error: './stacks' is a socket, but must be a directory"},
      {"mkfifo stacks", "", "Error: './stacks' is not a directory"},
      {"mkdir -p private/node/busy", "", "Unable to open os-node socket: Address already in use"},
      // $S and $T: the serv directories of two stores.
      {"mkdir -p $S", "", lost + "name-tag missing"},
      // A socket passes the existence test but cannot be opened, even by root.
      {"mkdir -p $S", "data/" + key_of('1') + "/serv/name", lost + "load-name"},
      {"mkdir -p $S && touch $S/name", "", lost + "set-name"},
      {"mkdir -p $S $T && printf twin > $S/name && printf twin > $T/name", "", lost + "set-name"},
      // The os-worker address of a stack under a long stacks root does not fit.
      {"mkdir -p $S && touch $S/name", "", "Invalid unix socket path: File name too long",
       "./stacks-under-a-root-whose-name-is-long"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    Daemon fresh;
    std::filesystem::current_path(fresh.path(""));
    shell("S=data/" + key_of('1') + "/serv T=data/" + key_of('2') + "/serv; " + c.setup);
    socket_address address{};
    socket_record bound{};
    ASSERT_TRUE(c.socket.empty() ||
                (socket_address_unix(c.socket.c_str(), &address) == 0 && socket_open(&address, 1, 0, &bound) == 0));
    socket_close(&bound);
    EXPECT_EXIT(stackman_open("./runenv", c.stacks.c_str(), "./data"), testing::ExitedWithCode(1),
                "^\\[[0-9]+\\] " + c.message + "\n$");
    EXPECT_TRUE(exists("private") && exists(c.stacks)) << "the other directories are made first";
  }
}

TEST_F(StackmanTest, RecoverySkipsNonKeysAndLeavesAStackThatCannotStartIdleUntilAHandOver) {
  bootstrap(false);
  const std::string too_long(65, 'f');
  make_store(too_long, "too long", true);
  make_store(key_of('1'), "sleepy", true);
  make_store(key_of('2'), std::string(1500, 'n'), false);
  EXPECT_EQ(stderr_of(open_manager), line("Error: ignoring '" + too_long + "' in the data root, not a stack key"))
      << "a failed start at recovery says nothing";
  EXPECT_EQ(stackman_get("too long"), nullptr);
  EXPECT_TRUE(exists("data/" + too_long));
  EXPECT_NE(stackman_get(std::string(1023, 'n').c_str()), nullptr) << "a long name-tag is cut to 1023 bytes";
  stackman_stack* stack = stackman_get("sleepy");
  ASSERT_NE(stack, nullptr);
  EXPECT_EQ(stack->state, STACKMAN_IDLE);
  Client client;
  EXPECT_EQ(stackman_upgrade_connection(stack, &client.record), -1);
  EXPECT_STREQ(stackman_strerror(), "spawn child");
  EXPECT_EQ(stack->state, STACKMAN_IDLE);

  bootstrap(true);
  EXPECT_EQ(stackman_upgrade_connection(stack, &client.record), -1);
  EXPECT_STREQ(stackman_strerror(), "resurrecting dead stack");
  EXPECT_EQ(stack->state, STACKMAN_RUNNING);
}

TEST_F(StackmanTest, DeploymentHandsTheConnectionToANewestStackUnderAFreshKey) {
  open_manager();
  Client client;
  const std::string fd = std::to_string(client.record.descriptor);
  stackman_stack* stack = deploy("app", "img", &client.record);
  ASSERT_NE(stack, nullptr) << stackman_strerror();
  EXPECT_EQ(stack->state, STACKMAN_RUNNING);
  EXPECT_TRUE(client.close_on_exec()) << "the connection is inheritable only while the stack starts";
  EXPECT_EQ(stackman_get("App"), nullptr) << "lookups are case-sensitive";
  const std::string key = stack->key, pid = std::to_string(stack->job->pid);
  EXPECT_EQ(strspn(stack->key, "0123456789abcdef"), 64u);
  EXPECT_EQ(client.answer(), "deployed app") << "the stack answers on the inherited connection";
  ASSERT_TRUE(dir_.wait_ready("app")) << "the disk is still before the next deployment";
  // Its own group's leader, the argument vector, only descriptors 0 1 2 and the connection.
  EXPECT_EQ(dir_.log_of_stack("app"), "start pid=" + pid + " pgid=" + pid + "\nargs ./stacks/" + key + "|app|./runenv|" +
                                          "./data/" + key + "|--|--deploy|" + fd + "\nfds 0 1 2 " + fd + "\nready\n");
  expect_failed_deploy("`key` not unique");

  // New records go first: every walk runs from the newest to the oldest.
  stackman_stack* newest = stackman_stack_create(key_of('1').c_str(), "newest");
  stackman_iter iterator{};
  EXPECT_EQ(stackman_iter_begin(&iterator), newest);
  EXPECT_EQ(stackman_iter_move(&iterator), stack);
  EXPECT_STREQ(iterator.name, "app");
  EXPECT_EQ(stackman_iter_move(&iterator), nullptr);
}

TEST_F(StackmanTest, AnImageStagedInPiecesGetsTheKeyOfTheWholeImage) {
  open_manager();
  const std::string name = "pieces", image = std::string(100000, 'k') + "tail";
  stackman_stack* stack = nullptr;
  time_t now;
  int random_value;
  do {  // again when a second began meanwhile: the key's time is unknown
    if (stack != nullptr) stackman_stack_destroy(stack);
    now = time(nullptr);
    srand(7);
    random_value = rand();
    srand(7);
    stackman_image staged;
    stackman_image_begin(&staged, name.c_str());
    for (size_t at = 0, piece = 0; at <= image.size(); at += piece, piece = piece * 3 + 1)
      stackman_image_write(&staged, image.data() + at, std::min(piece, image.size() - at));
    Client client;
    stack = stackman_stack_allocate(name.c_str(), &staged, &client.record);
    ASSERT_NE(stack, nullptr) << stackman_strerror();
  } while (time(nullptr) != now);
  EXPECT_EQ(read_file("data/" + std::string(stack->key) + "/serv/image"), image);
  hash_context whole;
  hash_open(&whole, HASH_SHA256);
  for (const std::string& part : {std::string(reinterpret_cast<const char*>(&now), sizeof now), name, image,
                                  std::string(reinterpret_cast<const char*>(&random_value), sizeof random_value)})
    hash_write(&whole, part.data(), part.size());
  uint8_t digest[HASH_SHA256_SIZE];
  hash_close(&whole, digest);
  char key[STACKMAN_KEY_SIZE];
  hash_maphex(HASH_SHA256, digest, key);
  EXPECT_STREQ(stack->key, key);
}

TEST_F(StackmanTest, FailedDeploymentsLeaveNothingBehindAndRemoveNothingTheyFound) {
  open_manager();
  bootstrap(false);
  expect_failed_deploy("spawn child");
  bootstrap(true);
  shell("rmdir stacks");
  expect_failed_deploy("mkdir stack path");
  shell("mkdir stacks && mv data data.away");
  expect_failed_deploy("mkdir store path");
  shell("mv data.away data");
  // A full disk, as the file-size limit makes it: no stack starts on a cut image.
  expect_failed_deploy("store image", "app", std::string(5000, 'i'), 100);
  expect_failed_deploy("store name-tag", std::string(200, 'n'), "img", 100);

  // A colliding directory: a deployment of the same name and image within
  // the same second and after the same srand() has the same key.
  for (const std::string& root : {std::string("data/"), std::string("stacks/")}) {
    for (time_t now = time(nullptr); time(nullptr) == now;) usleep(1000);
    Client client;
    srand(7);
    stackman_stack* probe = deploy("app", "img", &client.record);
    ASSERT_NE(probe, nullptr);
    const std::string taken = root + probe->key;
    stackman_stack_destroy(probe);
    srand(7);
    shell("mkdir -p " + taken + " && touch " + taken + "/keep");
    expect_failed_deploy(root == "data/" ? "mkdir store path" : "mkdir stack path");
    shell("rm -rf " + taken);
  }
}

TEST_F(StackmanTest, SupervisionReportsEndedJobsAndSettlesTheirStacks) {
  // `report` follows "Error: stack '{key}'[{name}] " on the standard error.
  struct Case { const char *name, *directives, *wait; bool stop; std::string report; };
  const Case cases[] = {
      // A deployment that never completed (no marker) goes.
      {"killed", "signal 9", "fds", false, "unexpected exit, " + std::string(strsignal(9)) + " (9)"},
      {"parent", "marker\ngrandchild\nexit 0", "grandchild ", false, "unexpected exit, success (0)"},
      // Stopping stacks report only a bad exit.
      {"dirty", "marker\nshutdown-exit 2", "ready", true, "failed to exit properly, failure (2)"},
      {"clean", "marker", "ready", true, ""},
  };
  open_manager();
  Client client;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    dir_.behave(c.name, c.directives);
    stackman_stack* stack = deploy(c.name, "img", &client.record);
    ASSERT_NE(stack, nullptr);
    const std::string key = stack->key;
    ASSERT_TRUE(logged(c.name, c.wait));
    pid_t grandchild = grandchild_of(c.name);
    if (c.stop) {
      EXPECT_EQ(stackman_signal(stack, STACKMAN_SHUTDOWN), 0);
      EXPECT_EQ(stack->state, STACKMAN_STOPPING);
      EXPECT_EQ(stackman_is_running(), 1u);
    }
    std::string err = stderr_of([&] { EXPECT_TRUE(supervise_until_not(c.name, stack->state)); });
    EXPECT_EQ(err, c.report.empty() ? "" : line("Error: stack '" + key + "'[" + c.name + "] " + c.report));
    EXPECT_EQ(stackman_is_running(), 0u);
    const bool deployed = strstr(c.directives, "marker") != nullptr;
    ASSERT_EQ(stackman_get(c.name), deployed ? stack : nullptr);
    EXPECT_EQ(exists("data/" + key) && exists("stacks/" + key), deployed);
    EXPECT_TRUE(!deployed || (stack->state == STACKMAN_IDLE && stack->job == nullptr));
    EXPECT_TRUE(grandchild == 0 || eventually([&] { return process_gone(grandchild); })) << "the group is stopped";
  }
}

TEST_F(StackmanTest, DestroyAndKilljobEndTheWholeGroup) {
  const std::string doomed = key_of('1'), stubborn = key_of('3');
  make_store(doomed, "doomed", true, "grandchild");
  make_store(stubborn, "stubborn", true, "ignore-term\ngrandchild-ignore-term");
  shell("mkdir -p stacks/" + doomed + " && touch stacks/" + doomed + "/old");
  open_manager();
  ASSERT_TRUE(dir_.wait_ready("doomed") && dir_.wait_ready("stubborn"));
  EXPECT_FALSE(exists("stacks/" + doomed + "/old")) << "recovery empties the stack path before the start";
  EXPECT_TRUE(contains(dir_.log_of_stack("doomed"), "|--\nfds 0 1 2\n")) << "no descriptor of the manager's";
  const pid_t grandchildren[] = {grandchild_of("doomed"), grandchild_of("stubborn")};
  stackman_stack_destroy(stackman_get("doomed"));
  EXPECT_EQ(stackman_get("doomed"), nullptr);
  EXPECT_FALSE(exists("data/" + doomed) || exists("stacks/" + doomed));

  // SIGTERM ignored: SIGKILL to the group after 5 seconds, with a line; the
  // stack stays, idle, and a second killjob finds nothing to do.
  stackman_stack* stack = stackman_get("stubborn");
  int64_t started = now_ms();
  std::string err = stderr_of([&] { stackman_stack_killjob(stack), stackman_stack_killjob(stack); });
  int64_t took = now_ms() - started;
  EXPECT_TRUE(took >= 5000 && took < 7000) << took;
  EXPECT_EQ(err, line("Error: stack '" + stubborn + "'[stubborn] did not stop in time, killed"));
  EXPECT_TRUE(stack->state == STACKMAN_IDLE && stack->job == nullptr && exists("data/" + stubborn));
  for (pid_t grandchild : grandchildren) EXPECT_TRUE(eventually([&] { return process_gone(grandchild); }));
}

TEST_F(StackmanTest, RenameAndBroadcastTellListeningStacksAndReportTheDeaf) {
  const std::string tag = "data/" + key_of('1') + "/serv/name", longest(1023, 'L');
  make_store(key_of('1'), "old", true);
  make_store(key_of('2'), "deaf", true, "no-bind");
  make_store(key_of('3'), "idle", true);
  open_manager();
  ASSERT_TRUE(dir_.wait_ready("old") && logged("deaf", "fds"));
  stackman_stack* stack = stackman_get("old");
  EXPECT_EQ(stackman_stack_rename(stack, longest.c_str()), stack);
  EXPECT_EQ(read_file(tag), longest);
  EXPECT_TRUE(logged(longest, "set_name " + longest + "\n"));
  for (const char* taken : {longest.c_str(), "deaf"}) {
    EXPECT_EQ(stackman_stack_rename(stack, taken), nullptr);
    EXPECT_STREQ(stackman_strerror(), "`key` not unique");
  }
  EXPECT_EQ(read_file(tag), longest);

  // A stack that cannot be told is renamed all the same, with a line.
  stackman_stack* deaf = stackman_get("deaf");
  std::string err = stderr_of([&] { EXPECT_EQ(stackman_stack_rename(deaf, "renamed"), deaf); });
  EXPECT_TRUE(contains(err, "] Failed to notify stack of rename to '" + key_of('2') + "'[renamed], ")) << err;
  EXPECT_EQ(read_file("data/" + key_of('2') + "/serv/name"), "renamed");

  // A broadcast tells only running stacks.
  stackman_stack* idle = stackman_get("idle");
  stackman_stack_killjob(idle);
  EXPECT_EQ(stderr_of([] { stackman_broadcast(STACKMAN_SHUTDOWN); }),
            line("Error: failed to broadcast signal to `1` stacks"));
  EXPECT_EQ(stack->state, STACKMAN_STOPPING);
  EXPECT_EQ(deaf->state, STACKMAN_STOPPING);
  EXPECT_EQ(idle->state, STACKMAN_IDLE);
  EXPECT_TRUE(supervise_until_not(longest.c_str(), STACKMAN_STOPPING)) << "the listening one ends";

  shell("rm -rf data/" + key_of('2') + "/serv");
  EXPECT_EQ(stackman_stack_rename(deaf, "again"), nullptr);
  EXPECT_STREQ(stackman_strerror(), "name-tag not found");
  EXPECT_STREQ(deaf->name, "again") << "the record keeps the new name";
}

// The stack runtime run for real: each test plays the daemon, with the stack
// and store directories in a temporary working directory, the daemon's
// argument vector, client connections accepted on loopback TCP, and control
// datagrams sent to the stack's os-worker.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/socket.h"
#include "protocol/management.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"
#include "tests/support/daemon.h"
#include "tests/support/message_testing.h"

#define KIND(kind) image___os_internal_protocol___root_t___type___tag___##kind
#define CHANNEL(channel) image___os_internal_protocol___root___type___text_t___channel___tag___##channel

using namespace e2e;

namespace {

const std::string key(64, 'c');

// Control datagrams as the daemon sends them.
const std::string kShutdown = Wire().u32(KIND(shutdown)).str(), kSockpass = Wire().u32(KIND(sockpass)).str();
std::string set_name(const std::string& name) { return Wire().u32(KIND(set_name)).text(name).str(); }
std::string text(uint32_t channel, const std::string& line) { return Wire().u32(KIND(text)).u32(channel).text(line).str(); }

// What comes up to the end of the stream, with "<no end>" after it when the
// stream does not end cleanly in time.
std::string rest(Connection& client) {
  std::string text;
  char chunk[4096];
  ssize_t got;
  while ((got = recv(client.fd(), chunk, sizeof chunk, 0)) > 0) text.append(chunk, static_cast<size_t>(got));
  return got == 0 ? text : text + "<no end>";
}

// Reads which of its handlers it is; "stubborn" ignores SIGTERM.
const char* const sleeper = "#!/bin/sh\nread how\n[ \"$how\" = stubborn ] && trap '' TERM\necho started\nexec sleep 60\n";

class Runtime : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/runenv-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = std::filesystem::canonical(pattern);  // what the handlers are told is absolute and real
    make_tree(stack_path());
    make_tree(store_path() + "/serv");
    socket_address node, clients;
    port_ = free_port();
    ASSERT_EQ(socket_address_unix((root_ + "/node").c_str(), &node), 0);
    ASSERT_EQ(socket_open(&node, 1, 0, &node_), 0);
    ASSERT_EQ(socket_address_unix(worker_path().c_str(), &worker_), 0);
    ASSERT_EQ(socket_address_tcp("127.0.0.1", std::to_string(port_).c_str(), &clients), 0);
    ASSERT_EQ(socket_open(&clients, 8, 1, &listener_), 0);
  }

  void TearDown() override {
    stop();
    socket_close(&node_);
    socket_close(&listener_);
    std::filesystem::remove_all(root_);
  }

  std::string stack_path() const { return root_ + "/stacks/" + key; }
  std::string store_path() const { return root_ + "/data/" + key; }
  std::string worker_path() const { return stack_path() + "/os-worker"; }
  std::string marker_path() const { return store_path() + "/serv/deployed"; }
  std::string out() const { return read_file(root_ + "/runtime.out"); }
  std::string err() const { return read_file(root_ + "/runtime.err"); }
  std::string log() const { return read_file(store_path() + "/log/current"); }

  // Without execute bits, as the daemon writes it, unless a deployment added them.
  void write_image(const std::string& contents, mode_t mode = 0644) {
    write_file(store_path() + "/serv/image", contents);
    chmod((store_path() + "/serv/image").c_str(), mode);
  }

  // The daemon's vector, with `extra` after the "--".
  static std::vector<std::string> arguments(std::vector<std::string> extra = {}) {
    extra.insert(extra.begin(), {"./stacks/" + key, "alpha", "./runenv", "./data/" + key, "--"});
    return extra;
  }

  // Starts the runtime as the daemon does: relative paths from the working
  // directory, its own process group, `inherited` left open under its number.
  void start(std::vector<std::string> words, int inherited = -1) {
    stop();
    std::vector<char*> argv{const_cast<char*>(RUNENV_BINARY)};
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::string out_path = root_ + "/runtime.out", err_path = root_ + "/runtime.err";
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ != 0) return;
    setpgid(0, 0);
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 || chdir(root_.c_str()) != 0) _exit(120);
    if (inherited >= 0) fcntl(inherited, F_SETFD, 0);
    execv(argv[0], argv.data());
    _exit(121);
  }

  // A fresh client connection on which `sent` has arrived: the client's end,
  // and the runtime's, which the caller closes once it is handed on.
  std::pair<std::unique_ptr<Connection>, int> connection(const std::string& sent = "") {
    auto client = std::make_unique<Connection>(port_);
    socket_record accepted{};
    EXPECT_TRUE(client->send(sent));
    EXPECT_EQ(socket_accept(&listener_, 0, &accepted), 0) << socket_strerror(&listener_);
    return {std::move(client), accepted.descriptor};
  }

  bool send_control(const std::string& bytes, int passed = -1) {
    socket_message message{bytes.data(), bytes.size()};
    socket_record record{};
    record.descriptor = passed;
    return socket_msg_send_dup(&node_, &worker_, &message, passed >= 0 ? &record : nullptr) == 0;
  }

  // Hands a fresh connection over with `message` as the daemon does for a
  // select, the client having sent `line` already; returns the client's end.
  std::unique_ptr<Connection> pass_connection(const std::string& line = "", const std::string& message = kSockpass) {
    auto [client, end] = connection(line);
    EXPECT_TRUE(send_control(message, end)) << socket_strerror(&node_);
    close(end);
    return std::move(client);
  }

  // Kills a runtime that has not been seen to exit, with its handlers.
  void stop() {
    if (pid_ > 0 && kill(-pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // The exit status, or -1 when the runtime did not exit in time.
  int wait_exit(int milliseconds = 5000) {
    int status = 0;
    if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, milliseconds)) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string root_;
  pid_t pid_ = -1;
  uint16_t port_ = 0;
  socket_record node_{}, listener_{};
  socket_address worker_{};
};

// A deployment is answered once os-worker is bound and the marker made.
// Control messages are acted on in order and malformed ones dropped; a
// descriptor that comes with anything but a sound sockpass is closed, so that
// its client sees the end of the stream.
TEST_F(Runtime, DeploysAndServesControlMessagesAndPassedConnections) {
  write_image(read_file(HANDLER_PROBE));
  auto [deploying, end] = connection();
  int stray = open("/dev/null", O_RDONLY);  // left inheritable to the runtime, as a careless parent might
  start(arguments({"--deploy", std::to_string(end)}), end);
  for (int descriptor : {stray, end}) close(descriptor);
  ASSERT_EQ(deploying->reply(), "success") << err();
  EXPECT_TRUE(exists(marker_path()));
  EXPECT_TRUE(exists(worker_path()));
  ASSERT_TRUE(send_control(set_name("beta gamma")));
  ASSERT_TRUE(send_control(text(CHANNEL(info), "ready to serve")));
  ASSERT_TRUE(send_control(text(CHANNEL(error), "disk\nnearly full")));  // one log line whatever the text holds
  std::string renamed = set_name("delta"), flipped = renamed;
  flipped[0] ^= 1;  // wrong fingerprint
  for (const std::string& bytes : {std::string("garbage"), renamed.substr(0, renamed.size() - 1), renamed + "x",
                                   flipped, kSockpass /* without its descriptor */})
    ASSERT_TRUE(send_control(bytes));
  for (const std::string& bytes : {std::string("garbage"), text(CHANNEL(info), "hi")})
    EXPECT_EQ(rest(*pass_connection("", bytes)), "") << bytes;
  // A handler that cannot be executed ends its own connection and nothing
  // else. The image keeps the mode the deployment gave it.
  write_file(store_path() + "/serv/image", "#!/nonexistent/interpreter\n");
  auto broken = pass_connection();
  EXPECT_EQ(broken->reply(), "upgrade");
  EXPECT_EQ(rest(*broken), "");
  write_file(store_path() + "/serv/image", read_file(HANDLER_PROBE));
  // The client's line is there before the handler starts; the upgrade reply
  // still comes first, ahead of any byte of the handler, which sees the
  // stack's variables, its directory and nothing else open.
  auto client = pass_connection("ping\n");
  EXPECT_EQ(client->reply(), "upgrade");
  EXPECT_EQ(rest(*client), "line=ping\nAPPSRV_STACK_NAME=beta gamma\nAPPSRV_STACK_PATH=" + stack_path() +
                               "\nAPPSRV_STORE_PATH=" + store_path() + "\npwd=" + stack_path() + "\nfds=0 1 2\n");
  // The texts came before the connections, so they are logged by now.
  EXPECT_TRUE(contains(out(), "Stack '" + key + "'[beta gamma]: ready to serve\n")) << out();
  EXPECT_TRUE(contains(err(), "Error: stack '" + key + "'[beta gamma] disk?nearly full\n")) << err();
}

// Either way the handlers get SIGTERM, one that ignores it is killed after
// its grace and nobody waits longer than that; every client is told that the
// stack stopped its session, and os-worker goes.
TEST_F(Runtime, AShutdownOrAStopSignalEndsTheHandlersAndExitsZero) {
  const struct { bool by_signal; std::vector<std::string> handlers; } rows[] = {
      {false, {"plain", "stubborn"}}, {true, {"plain"}}};
  for (const auto& row : rows) {
    std::filesystem::remove_all(store_path() + "/log");
    write_image(sleeper, 0755);  // deployed: started without "--deploy", ready once os-worker exists
    start(arguments());
    ASSERT_TRUE(eventually([&] { return exists(worker_path()); })) << err();
    std::vector<std::unique_ptr<Connection>> clients;
    for (const std::string& how : row.handlers) {
      clients.push_back(pass_connection(how + "\n"));
      EXPECT_EQ(clients.back()->reply(), "upgrade");
    }
    for (auto& client : clients) EXPECT_EQ(client->line(), "started");  // all at once
    int64_t began = now_ms();
    ASSERT_TRUE(row.by_signal ? kill(pid_, SIGTERM) == 0 : send_control(kShutdown));
    EXPECT_EQ(wait_exit(10000), 0);
    bool stubborn = row.handlers.size() > 1;
    EXPECT_EQ(now_ms() - began >= 2500, stubborn) << now_ms() - began << " ms";
    for (auto& client : clients) EXPECT_EQ(rest(*client), MANAGEMENT_SESSION_STOPPED);
    EXPECT_TRUE(contains(log(), "ended, Terminated (15)")) << log();
    EXPECT_EQ(contains(log(), "ended, Killed (9)"), stubborn) << log();
    EXPECT_FALSE(exists(worker_path()));
  }
}

// A failed deployment ends with 1 (an image that is neither program nor
// script, a deploy descriptor that is no connection), a wrong argument vector
// with 2; each says why in one line and leaves no marker, and a client that
// is there hears the reason.
TEST_F(Runtime, FailedStartsEndWithTheirStatusAndNoMarker) {
  auto [client, end] = connection();
  int pipe_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  const struct { std::string image; std::vector<std::string> words; int inherited, status; } rows[] = {
      {"just some text\n", arguments({"--deploy", std::to_string(end)}), end, 1},
      {"#!/bin/sh\n", arguments({"--deploy", std::to_string(pipe_ends[0])}), pipe_ends[0], 1},
      {"#!/bin/sh\n", arguments({"--deploy", "987"}), -1, 1},
      {"#!/bin/sh\n", arguments({"--deploy"}), -1, 2}};
  for (const auto& row : rows) {
    write_image(row.image);
    write_file(root_ + "/runtime.err", "");
    start(row.words, row.inherited);
    EXPECT_EQ(wait_exit(), row.status) << ::testing::PrintToString(row.words);
    std::string said = err();
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    EXPECT_FALSE(exists(marker_path()));
  }
  EXPECT_EQ(client->reply(), "failure: invalid image: neither an ELF program nor a \"#!\" script");
  for (int descriptor : {end, pipe_ends[0], pipe_ends[1]}) close(descriptor);
}

}  // namespace

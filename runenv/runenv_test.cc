// The stack runtime run for real: each test plays the daemon, with the stack
// and store directories in a temporary working directory, the daemon's
// argument vector, and control datagrams sent to the stack's os-worker.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/ostream.h"
#include "base/runtime.h"
#include "base/socket.h"
#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/management.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"

namespace {

const std::string key(64, 'c');
constexpr size_t npos = std::string::npos;

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The client's end of a stream connection.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {
    timeval timeout{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ~Peer() { close(fd_); }

  // One reply frame: "failure: {reason}", "empty", "data", "upgrade", or
  // "" when no well-formed frame came.
  std::string reply() {
    uint8_t word[4];
    if (recv(fd_, word, 4, MSG_WAITALL) != 4) return "";
    size_t size = (size_t{word[0]} << 24) | (size_t{word[1]} << 16) | (size_t{word[2]} << 8) | word[3];
    std::string payload(std::min<size_t>(size, 65536), '\0');
    if (size > payload.size() || recv(fd_, payload.data(), size, MSG_WAITALL) != static_cast<ssize_t>(size)) return "";
    dympage* arena = image___appsrv_protocol_reply___create_allocator_f();
    auto* root = image___appsrv_protocol_reply___root_t___allocate_f(arena);
    istream* in = istream_create_memory(payload.data(), payload.size());
    std::string result;
    if (image___appsrv_protocol_reply___parse_bin_f(arena, root, in) == 0 && root->status.set) {
      auto* failure = static_cast<image___appsrv_protocol_reply___root___status___failure_t*>(root->status.payload);
      auto* success = static_cast<image___appsrv_protocol_reply___root___status___success_t*>(root->status.payload);
      if (root->status.tag == 0)
        result = "failure: " + std::string(failure->reason.text != nullptr ? failure->reason.text : "");
      else
        result = root->status.tag == 2 ? "upgrade" : success->type.tag == 1 ? "empty" : "data";
    }
    istream_destroy(in);
    image___appsrv_protocol_reply___destroy_allocator_f(arena);
    return result;
  }

  // Everything up to the end of the stream; none when the end does not come.
  std::optional<std::string> rest() {
    std::string text;
    char chunk[4096];
    ssize_t got;
    while ((got = recv(fd_, chunk, sizeof chunk, 0)) > 0) text.append(chunk, static_cast<size_t>(got));
    return got == 0 ? std::optional(text) : std::nullopt;
  }

  std::string line() {
    std::string text;
    for (char c; recv(fd_, &c, 1, 0) == 1 && c != '\n';) text += c;
    return text;
  }

 private:
  int fd_;
};

enum Control { SET_NAME, SHUTDOWN, SOCKPASS, INFO, ERROR };

std::string control(Control type, const std::string& text = "") {
  dympage* arena = image___os_internal_protocol___create_allocator_f();
  auto* root = image___os_internal_protocol___root_t___allocate_f(arena);
  if (type == SET_NAME) {
    auto* payload = image___os_internal_protocol___root_t___type___iwrite_setto___set_name(arena, root);
    image___os_internal_protocol___root___type___set_name_t___name___iwrite_set(arena, payload, text.c_str());
  } else if (type == SHUTDOWN) {
    image___os_internal_protocol___root_t___type___iwrite_setto___shutdown(arena, root);
  } else if (type == SOCKPASS) {
    image___os_internal_protocol___root_t___type___iwrite_setto___sockpass(arena, root);
  } else {
    auto* payload = image___os_internal_protocol___root_t___type___iwrite_setto___text(arena, root);
    if (type == ERROR)
      image___os_internal_protocol___root___type___text_t___channel___iwrite_setto___error(arena, payload);
    else
      image___os_internal_protocol___root___type___text_t___channel___iwrite_setto___info(arena, payload);
    image___os_internal_protocol___root___type___text_t___line___iwrite_set(arena, payload, text.c_str());
  }
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  image___os_internal_protocol___finalize_f(root);
  int result = image___os_internal_protocol___serialize_bin_f(root, out);
  ostream_destroy(out);
  std::string bytes = result == 0 ? std::string(buffer, size) : "";
  free(buffer);
  image___os_internal_protocol___destroy_allocator_f(arena);
  return bytes;
}

// Reads which of its handlers it is; "stubborn" ignores SIGTERM.
const char* const sleeper = "#!/bin/sh\nread how\n[ \"$how\" = stubborn ] && trap '' TERM\necho started\nexec sleep 60\n";

class Runtime : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/runenv-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = std::filesystem::canonical(pattern);  // what the handlers are told is absolute and real
    std::filesystem::create_directories(stack_path());
    std::filesystem::create_directories(store_path() + "/serv");
    socket_address address;
    ASSERT_EQ(socket_address_unix((root_ + "/node").c_str(), &address), 0);
    ASSERT_EQ(socket_open(&address, 1, 0, &node_), 0);
    ASSERT_EQ(socket_address_unix(worker_path().c_str(), &worker_), 0);
  }

  void TearDown() override {
    stop();
    socket_close(&node_);
    std::filesystem::remove_all(root_);
  }

  std::string stack_path() const { return root_ + "/stacks/" + key; }
  std::string store_path() const { return root_ + "/data/" + key; }
  std::string worker_path() const { return stack_path() + "/os-worker"; }
  std::string image_path() const { return store_path() + "/serv/image"; }
  std::string marker_path() const { return store_path() + "/serv/deployed"; }
  std::string out() const { return read_file(root_ + "/runtime.out"); }
  std::string err() const { return read_file(root_ + "/runtime.err"); }
  std::string log() const { return read_file(store_path() + "/log/current"); }

  // Without execute bits, as the daemon writes it, unless a deployment added them.
  void write_image(const std::string& contents, mode_t mode = 0644) {
    std::ofstream(image_path(), std::ios::binary) << contents;
    chmod(image_path().c_str(), mode);
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

  // A fresh connection on which the client has sent `sent`: the client's
  // end, and the runtime's, which the caller closes once it is handed on.
  static std::pair<std::unique_ptr<Peer>, int> connection(const std::string& sent = "") {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(write(ends[0], sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    return {std::make_unique<Peer>(ends[0]), ends[1]};
  }

  // A deployment of `image`, answered on the returned client's connection.
  std::unique_ptr<Peer> deploy(const std::string& image) {
    write_image(image);
    auto [client, end] = connection();
    start(arguments({"--deploy", std::to_string(end)}), end);
    close(end);
    return std::move(client);
  }

  // A restart of a deployed stack: no reply; ready once os-worker exists.
  void start_serving(const std::string& image) {
    write_image(image, 0755);
    start(arguments());
    for (int tries = 0; tries < 500 && !exists(worker_path()); ++tries) usleep(10000);
    ASSERT_TRUE(exists(worker_path())) << err();
  }

  bool send_control(const std::string& bytes, int passed = -1) {
    socket_message message{bytes.data(), bytes.size()};
    socket_record record{};
    record.descriptor = passed;
    return socket_msg_send_dup(&node_, &worker_, &message, passed >= 0 ? &record : nullptr) == 0;
  }

  // Hands a fresh connection over with `message` as the daemon does for a
  // select, the client having sent `line` already; returns the client's end.
  std::unique_ptr<Peer> pass_connection(const std::string& line = "", const std::string& message = control(SOCKPASS)) {
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
    for (; waitpid(pid_, &status, WNOHANG) != pid_; milliseconds -= 10) {
      if (milliseconds < 0) return -1;
      usleep(10000);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string root_;
  pid_t pid_ = -1;
  socket_record node_{};
  socket_address worker_{};
};

TEST_F(Runtime, DeploysAScriptImage) {
  EXPECT_EQ(deploy("#!/bin/sh\necho hello\n")->reply(), "empty") << err();
  EXPECT_TRUE(exists(marker_path()));
  EXPECT_EQ(access(image_path().c_str(), X_OK), 0);
  EXPECT_TRUE(exists(worker_path()));  // bound before the client hears of success
}

TEST_F(Runtime, RefusesAnImageThatIsNeitherProgramNorScript) {
  EXPECT_EQ(deploy("just some text\n")->reply(), "failure: invalid image: neither an ELF program nor a \"#!\" script");
  EXPECT_EQ(wait_exit(), 1);
  EXPECT_FALSE(exists(marker_path()));
}

TEST_F(Runtime, RunsAnElfImageOnThePassedConnectionWithTheStackVariablesAndNothingElseOpen) {
  int stray = open("/dev/null", O_RDONLY);  // left inheritable to the runtime, as a careless parent might
  ASSERT_EQ(deploy(read_file(HANDLER_PROBE))->reply(), "empty") << err();
  close(stray);
  // The client's line is there before the handler starts; the upgrade reply
  // still comes first, ahead of any byte of the handler.
  auto client = pass_connection("ping\n");
  EXPECT_EQ(client->reply(), "upgrade");
  EXPECT_EQ(client->rest(), "line=ping\nAPPSRV_STACK_NAME=alpha\nAPPSRV_STACK_PATH=" + stack_path() +
                                "\nAPPSRV_STORE_PATH=" + store_path() + "\npwd=" + stack_path() + "\nfds=0 1 2\n");
}

TEST_F(Runtime, SetNameReachesLaterHandlersAndTextIsLoggedOnItsChannel) {
  start_serving(read_file(HANDLER_PROBE));
  ASSERT_TRUE(send_control(control(SET_NAME, "beta gamma")));
  ASSERT_TRUE(send_control(control(INFO, "ready to serve")));
  ASSERT_TRUE(send_control(control(ERROR, "disk\nnearly full")));  // one log line whatever the text holds
  auto client = pass_connection("x\n");
  EXPECT_EQ(client->reply(), "upgrade");
  EXPECT_NE(client->rest().value_or("").find("\nAPPSRV_STACK_NAME=beta gamma\n"), npos);
  // The texts came before the connection, so they are logged by now.
  EXPECT_NE(out().find("Stack '" + key + "'[beta gamma]: ready to serve\n"), npos) << out();
  EXPECT_NE(err().find("Error: stack '" + key + "'[beta gamma] disk?nearly full\n"), npos) << err();
}

TEST_F(Runtime, ShutdownEndsHandlersKillingOneThatIgnoresTermAfterTheGraceAndExitsZero) {
  start_serving(sleeper);
  auto plain = pass_connection("plain\n"), stubborn = pass_connection("stubborn\n");
  for (Peer* client : {plain.get(), stubborn.get()}) {
    EXPECT_EQ(client->reply(), "upgrade");
    EXPECT_EQ(client->line(), "started");  // both at once
  }
  int64_t began = runtime_getclock();
  ASSERT_TRUE(send_control(control(SHUTDOWN)));
  EXPECT_EQ(wait_exit(10000), 0);
  EXPECT_GE(runtime_getclock() - began, 2500);  // the stubborn one had its grace
  // Each session's last line says the stack stopped it.
  EXPECT_EQ(plain->rest(), MANAGEMENT_SESSION_STOPPED);
  EXPECT_EQ(stubborn->rest(), MANAGEMENT_SESSION_STOPPED);
  EXPECT_NE(log().find("ended, Terminated (15)"), npos) << log();
  EXPECT_NE(log().find("ended, Killed (9)"), npos) << log();
  EXPECT_FALSE(exists(worker_path()));
}

TEST_F(Runtime, TermSignalEndsTheRuntimeAndItsHandlersAtOnce) {
  start_serving(sleeper);
  auto client = pass_connection("plain\n");
  EXPECT_EQ(client->reply(), "upgrade");
  EXPECT_EQ(client->line(), "started");
  int64_t began = runtime_getclock();
  ASSERT_EQ(kill(pid_, SIGTERM), 0);
  EXPECT_EQ(wait_exit(), 0);
  EXPECT_LT(runtime_getclock() - began, 2000);
  EXPECT_EQ(client->rest(), MANAGEMENT_SESSION_STOPPED);
  EXPECT_FALSE(exists(worker_path()));
}

TEST_F(Runtime, MalformedDatagramsAreDroppedAndTheirDescriptorsClosed) {
  start_serving(read_file(HANDLER_PROBE));
  std::string valid = control(SET_NAME, "beta"), flipped = valid;
  flipped[0] ^= 1;  // wrong fingerprint
  for (const std::string& bytes : {std::string("garbage"), valid.substr(0, valid.size() - 1), valid + "x", flipped,
                                   control(SOCKPASS) /* without its descriptor */})
    ASSERT_TRUE(send_control(bytes));
  // A descriptor that comes with anything but a sound sockpass is closed, so
  // its client sees the end of the stream.
  for (const std::string& bytes : {std::string("garbage"), control(INFO, "hi")})
    EXPECT_EQ(pass_connection("", bytes)->rest(), "") << bytes;
  auto client = pass_connection("x\n");  // still serving, under the old name
  EXPECT_EQ(client->reply(), "upgrade");
  EXPECT_NE(client->rest().value_or("").find("\nAPPSRV_STACK_NAME=alpha\n"), npos);
}

TEST_F(Runtime, AnImageThatCannotBeExecutedLeavesTheRuntimeServing) {
  ASSERT_EQ(deploy("#!/nonexistent/interpreter\n")->reply(), "empty") << err();
  auto client = pass_connection();
  EXPECT_EQ(client->reply(), "upgrade");
  EXPECT_EQ(client->rest(), "");
  ASSERT_TRUE(send_control(control(SHUTDOWN)));
  EXPECT_EQ(wait_exit(), 0);
}

// A deploy descriptor that is no connection (a pipe, a closed number) ends
// with 1, a wrong argument vector with 2; each says why in one line.
TEST_F(Runtime, StartUpFailuresEndWithTheirStatusAndNoMarker) {
  write_image("#!/bin/sh\n");
  int pipe_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  const std::pair<std::vector<std::string>, int> cases[] = {
      {arguments({"--deploy", std::to_string(pipe_ends[0])}), 1}, {arguments({"--deploy", "987"}), 1},
      {{}, 2}, {arguments({"--deploy"}), 2}, {arguments({"--deploy", "x"}), 2}};
  for (const auto& [words, status] : cases) {
    truncate((root_ + "/runtime.err").c_str(), 0);
    start(words, pipe_ends[0]);
    EXPECT_EQ(wait_exit(), status) << ::testing::PrintToString(words);
    std::string log = err();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_FALSE(exists(marker_path()));
  }
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

}  // namespace

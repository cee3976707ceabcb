// The stack runtime run for real: each test plays the daemon, making the
// stack and store directories in a temporary working directory, starting the
// runtime binary with the daemon's argument vector (and an inherited
// connection for a deployment), and sending control datagrams from a socket
// of its own to the stack's os-worker.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
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
#include "protocol/os_internal_protocol/os_internal_protocol.h"

namespace {

// Descriptors this binary got from its launcher must not reach the runtime
// it starts: a leak seen by a handler is then the runtime's own.
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

const std::string key(64, 'c');

std::string read_file(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return "";
  std::string contents;
  char chunk[4096];
  for (size_t got; (got = fread(chunk, 1, sizeof chunk, f)) > 0;) contents.append(chunk, got);
  fclose(f);
  return contents;
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

std::string real(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : "<unresolved>";
}

struct Reply {
  bool received = false;
  std::string status;  // "failure", "success/empty", "success/data", "upgrade"
  std::string reason;
};

// One end of a stream connection as a client sees it.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {
    timeval timeout{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ~Peer() {
    if (fd_ >= 0) close(fd_);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  Reply reply() {
    Reply reply;
    uint8_t word[4];
    if (!read_exactly(word, 4)) return reply;
    std::string payload((size_t{word[0]} << 24) | (size_t{word[1]} << 16) | (size_t{word[2]} << 8) | word[3], '\0');
    if (!read_exactly(payload.data(), payload.size())) return reply;
    dympage* arena = image___appsrv_protocol_reply___create_allocator_f();
    auto* root = image___appsrv_protocol_reply___root_t___allocate_f(arena);
    istream* in = istream_create_memory(payload.data(), payload.size());
    if (image___appsrv_protocol_reply___parse_bin_f(arena, root, in) == 0 && root->status.set) {
      reply.received = true;
      if (root->status.tag == 0) {
        reply.status = "failure";
        auto* failure = static_cast<image___appsrv_protocol_reply___root___status___failure_t*>(root->status.payload);
        reply.reason.assign(failure->reason.text != nullptr ? failure->reason.text : "", failure->reason.length);
      } else if (root->status.tag == 1) {
        auto* success = static_cast<image___appsrv_protocol_reply___root___status___success_t*>(root->status.payload);
        reply.status = success->type.tag == 1 ? "success/empty" : "success/data";
      } else {
        reply.status = "upgrade";
      }
    }
    istream_destroy(in);
    image___appsrv_protocol_reply___destroy_allocator_f(arena);
    return reply;
  }

  bool send(const std::string& text) {
    return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }

  // Everything up to the end of the stream; `ended` says whether it came.
  std::string rest(bool* ended = nullptr) {
    std::string text;
    char chunk[4096];
    ssize_t got;
    while ((got = recv(fd_, chunk, sizeof chunk, 0)) > 0) text.append(chunk, static_cast<size_t>(got));
    if (ended != nullptr) *ended = got == 0;
    return text;
  }

  std::string line() {
    std::string text;
    char c;
    while (recv(fd_, &c, 1, 0) == 1 && c != '\n') text += c;
    return text;
  }

 private:
  bool read_exactly(void* buffer, size_t size) {
    size_t got = 0;
    while (got < size) {
      ssize_t n = recv(fd_, static_cast<char*>(buffer) + got, size - got, 0);
      if (n <= 0) return false;
      got += static_cast<size_t>(n);
    }
    return true;
  }
  int fd_;
};

using control_t = image___os_internal_protocol___root_t;

std::string encode_control(const std::function<void(dympage*, control_t*)>& build) {
  dympage* arena = image___os_internal_protocol___create_allocator_f();
  control_t* root = image___os_internal_protocol___root_t___allocate_f(arena);
  build(arena, root);
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  image___os_internal_protocol___finalize_f(root);
  int result = image___os_internal_protocol___serialize_bin_f(root, out);
  ostream_destroy(out);
  std::string bytes(buffer, size);
  free(buffer);
  image___os_internal_protocol___destroy_allocator_f(arena);
  return result == 0 ? bytes : std::string();
}

std::string encode_sockpass() {
  return encode_control([](dympage* arena, control_t* root) {
    image___os_internal_protocol___root_t___type___iwrite_setto___sockpass(arena, root);
  });
}

std::string encode_shutdown() {
  return encode_control([](dympage* arena, control_t* root) {
    image___os_internal_protocol___root_t___type___iwrite_setto___shutdown(arena, root);
  });
}

std::string encode_set_name(const std::string& name) {
  return encode_control([&](dympage* arena, control_t* root) {
    auto* payload = image___os_internal_protocol___root_t___type___iwrite_setto___set_name(arena, root);
    image___os_internal_protocol___root___type___set_name_t___name___iwrite_set(arena, payload, name.c_str());
  });
}

std::string encode_text(bool error, const std::string& line) {
  return encode_control([&](dympage* arena, control_t* root) {
    auto* payload = image___os_internal_protocol___root_t___type___iwrite_setto___text(arena, root);
    if (error)
      image___os_internal_protocol___root___type___text_t___channel___iwrite_setto___error(arena, payload);
    else
      image___os_internal_protocol___root___type___text_t___channel___iwrite_setto___info(arena, payload);
    image___os_internal_protocol___root___type___text_t___line___iwrite_set(arena, payload, line.c_str());
  });
}

const char* const echo_script =
    "#!/bin/sh\n"
    "read line\n"
    "echo \"name=$APPSRV_STACK_NAME\"\n"
    "echo \"stack=$APPSRV_STACK_PATH\"\n"
    "echo \"store=$APPSRV_STORE_PATH\"\n"
    "echo \"pwd=$(pwd -P)\"\n"
    "echo \"line=$line\"\n";

const char* const sleeper_script =
    "#!/bin/sh\n"
    "echo started\n"
    "exec sleep 60\n";

class Runtime : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/runenv-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    for (const char* directory : {"/stacks", "/data", "/runenv"}) mkdir((root_ + directory).c_str(), 0755);
    mkdir(stack_path().c_str(), 0755);
    mkdir(store_path().c_str(), 0755);
    mkdir((store_path() + "/serv").c_str(), 0755);
    write_file(store_path() + "/serv/name", "alpha");
    socket_address address;
    ASSERT_EQ(socket_address_unix((root_ + "/node").c_str(), &address), 0);
    ASSERT_EQ(socket_open(&address, 1, 0, &node_), 0);
    ASSERT_EQ(socket_address_unix(worker_path().c_str(), &worker_), 0);
  }

  void TearDown() override {
    if (pid_ > 0) {
      kill(-pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    socket_close(&node_);
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  std::string stack_path() const { return root_ + "/stacks/" + key; }
  std::string store_path() const { return root_ + "/data/" + key; }
  std::string worker_path() const { return stack_path() + "/os-worker"; }
  std::string image_path() const { return store_path() + "/serv/image"; }
  std::string marker_path() const { return store_path() + "/serv/deployed"; }
  std::string out() const { return read_file(root_ + "/runtime.out"); }
  std::string err() const { return read_file(root_ + "/runtime.err"); }

  static void write_file(const std::string& path, const std::string& contents, mode_t mode = 0644) {
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    fwrite(contents.data(), 1, contents.size(), f);
    fclose(f);
    chmod(path.c_str(), mode);
  }

  // Deployments get images without execute bits, as the daemon writes them;
  // a restarted stack's image was made executable by its deployment.
  void write_image(const std::string& contents, mode_t mode = 0644) { write_file(image_path(), contents, mode); }

  // Starts the runtime in the working directory as the daemon does: relative
  // paths, its own process group, `inherited` left open under its number.
  void start(std::vector<std::string> arguments, int inherited = -1) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(RUNENV_BINARY));
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::string out_path = root_ + "/runtime.out";
    std::string err_path = root_ + "/runtime.err";
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      setpgid(0, 0);
      int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 || chdir(root_.c_str()) != 0) _exit(120);
      if (inherited >= 0) fcntl(inherited, F_SETFD, 0);
      execv(argv[0], argv.data());
      _exit(121);
    }
  }

  std::vector<std::string> stack_arguments(const std::string& name = "alpha") const {
    return {"./stacks/" + key, name, "./runenv", "./data/" + key, "--"};
  }

  // Starts a deployment with one end of a fresh connection inherited; the
  // other end is the uploading client's.
  std::unique_ptr<Peer> deploy() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return nullptr;
    std::vector<std::string> arguments = stack_arguments();
    arguments.push_back("--deploy");
    arguments.push_back(std::to_string(ends[1]));
    start(arguments, ends[1]);
    close(ends[1]);
    return std::make_unique<Peer>(ends[0]);
  }

  // A deployment that must succeed, after which the runtime serves.
  void deploy_serving(const std::string& image) {
    write_image(image);
    auto client = deploy();
    ASSERT_NE(client, nullptr);
    Reply reply = client->reply();
    ASSERT_TRUE(reply.received) << err();
    ASSERT_EQ(reply.status, "success/empty") << reply.reason << "\n" << err();
  }

  // A restart of a deployed stack: no "--deploy", so no reply; ready once
  // os-worker exists.
  void start_serving(const std::string& name = "alpha") {
    start(stack_arguments(name));
    ASSERT_TRUE(eventually([&] { return exists(worker_path()); })) << err();
  }

  bool send_control(const std::string& bytes, int passed = -1) {
    socket_message message{bytes.data(), bytes.size()};
    socket_record passed_record{};
    passed_record.descriptor = passed;
    return socket_msg_send_dup(&node_, &worker_, &message, passed >= 0 ? &passed_record : nullptr) == 0;
  }

  // Hands a fresh connection to the stack as the daemon does for select;
  // returns the client's end.
  std::unique_ptr<Peer> pass_connection() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return nullptr;
    bool sent = send_control(encode_sockpass(), ends[1]);
    close(ends[1]);
    EXPECT_TRUE(sent) << socket_strerror(&node_);
    return std::make_unique<Peer>(ends[0]);
  }

  // The raw status, or -1 when the runtime did not end in time.
  int wait_exit(int milliseconds = 5000) {
    int status = 0;
    for (int waited = 0; waited <= milliseconds; waited += 10) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return status;
      }
      usleep(10000);
    }
    return -1;
  }

  bool running() const { return pid_ > 0 && kill(pid_, 0) == 0; }

  std::string root_;
  pid_t pid_ = -1;
  socket_record node_{};
  socket_address worker_{};
};

TEST_F(Runtime, DeploysAScriptImage) {
  deploy_serving("#!/bin/sh\necho hello\n");
  EXPECT_TRUE(exists(marker_path()));
  struct stat info {};
  ASSERT_EQ(stat(image_path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0111, 0111u) << std::oct << info.st_mode;
  // The os-worker socket is bound by the time the client hears of success.
  EXPECT_TRUE(exists(worker_path()));
  EXPECT_TRUE(running());
  EXPECT_NE(out().find("Stack '" + key + "'[alpha]: deployed\n"), std::string::npos) << out();
}

TEST_F(Runtime, RefusesAnImageThatIsNeitherProgramNorScript) {
  write_image("just some text\n");
  auto client = deploy();
  Reply reply = client->reply();
  ASSERT_TRUE(reply.received);
  EXPECT_EQ(reply.status, "failure");
  EXPECT_EQ(reply.reason, "invalid image");
  int status = wait_exit();
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_FALSE(exists(marker_path()));
  EXPECT_FALSE(exists(worker_path()));
  struct stat info {};
  ASSERT_EQ(stat(image_path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0111, 0u);
  EXPECT_NE(err().find("Error: stack '" + key + "'[alpha] invalid image"), std::string::npos) << err();
}

TEST_F(Runtime, DeploysAnElfProgramAndRunsItWithOnlyTheConnectionOpen) {
  std::string program = read_file(HANDLER_PROBE);
  ASSERT_FALSE(program.empty());
  deploy_serving(program);  // written without execute bits: the deployment adds them
  EXPECT_TRUE(exists(marker_path()));

  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  ASSERT_TRUE(client->send("ping\n"));
  bool ended = false;
  std::string output = client->rest(&ended);
  EXPECT_TRUE(ended);
  EXPECT_NE(output.find("line=ping\n"), std::string::npos) << output;
  // Standard input and output are the connection, standard error the
  // runtime's; nothing else of the runtime's (os-worker included) gets in.
  EXPECT_NE(output.find("fds=0 1 2\n"), std::string::npos) << output;
}

TEST_F(Runtime, HandlerGetsConnectionVariablesAndStackDirectory) {
  deploy_serving(echo_script);
  auto client = pass_connection();
  // The upgrade reply is the first thing on the connection, before any byte
  // of the handler (which writes nothing until it has read a line).
  Reply reply = client->reply();
  ASSERT_TRUE(reply.received);
  EXPECT_EQ(reply.status, "upgrade");
  ASSERT_TRUE(client->send("hello there\n"));
  bool ended = false;
  std::string output = client->rest(&ended);
  EXPECT_TRUE(ended);
  std::string stack = real(stack_path());
  EXPECT_EQ(output, "name=alpha\nstack=" + stack + "\nstore=" + real(store_path()) + "\npwd=" + stack +
                        "\nline=hello there\n");
  EXPECT_TRUE(eventually([&] { return out().find("ended, success (0)") != std::string::npos; })) << out();
  EXPECT_NE(out().find("Stack '" + key + "'[alpha]: handler "), std::string::npos);
}

TEST_F(Runtime, HandlersRunSideBySide) {
  write_image(sleeper_script, 0755);
  start_serving();
  auto first = pass_connection();
  auto second = pass_connection();
  EXPECT_EQ(first->reply().status, "upgrade");
  EXPECT_EQ(second->reply().status, "upgrade");
  EXPECT_EQ(first->line(), "started");
  EXPECT_EQ(second->line(), "started");
}

TEST_F(Runtime, SetNameChangesWhatLaterHandlersSee) {
  deploy_serving(echo_script);
  ASSERT_TRUE(send_control(encode_set_name("beta gamma")));
  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  ASSERT_TRUE(client->send("x\n"));
  EXPECT_EQ(client->line(), "name=beta gamma");
  EXPECT_NE(out().find("Stack '" + key + "'[alpha]: renamed to [beta gamma]\n"), std::string::npos) << out();
  // Later log lines carry the new name.
  EXPECT_TRUE(eventually([&] { return out().find("'[beta gamma]: handler") != std::string::npos; })) << out();
}

TEST_F(Runtime, TextMessagesAreLoggedOnTheirChannel) {
  write_image(echo_script);
  start_serving();
  ASSERT_TRUE(send_control(encode_text(false, "ready to serve")));
  ASSERT_TRUE(send_control(encode_text(true, "disk\nnearly full")));
  std::string info = "Stack '" + key + "'[alpha]: ready to serve\n";
  std::string error = "Error: stack '" + key + "'[alpha] disk?nearly full\n";
  EXPECT_TRUE(eventually([&] { return out().find(info) != std::string::npos; })) << out();
  EXPECT_TRUE(eventually([&] { return err().find(error) != std::string::npos; })) << err();
  EXPECT_EQ(out().find("nearly"), std::string::npos);
}

TEST_F(Runtime, ShutdownEndsHandlersAndExitsZero) {
  deploy_serving(sleeper_script);
  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  EXPECT_EQ(client->line(), "started");
  ASSERT_TRUE(send_control(encode_shutdown()));
  int status = wait_exit();
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  bool ended = false;
  client->rest(&ended);
  EXPECT_TRUE(ended);  // the handler, the last holder of the connection, is gone
  EXPECT_FALSE(exists(worker_path()));
  EXPECT_NE(out().find("ended, Terminated (15)"), std::string::npos) << out();
  EXPECT_NE(out().find("Stack '" + key + "'[alpha]: stopped\n"), std::string::npos) << out();
  EXPECT_TRUE(exists(marker_path()));
}

TEST_F(Runtime, ShutdownKillsAHandlerThatIgnoresTerm) {
  write_image("#!/bin/sh\ntrap '' TERM\necho started\nexec sleep 60\n", 0755);
  start_serving();
  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  EXPECT_EQ(client->line(), "started");
  int64_t began = runtime_getclock();
  ASSERT_TRUE(send_control(encode_shutdown()));
  int status = wait_exit(10000);
  int64_t took = runtime_getclock() - began;
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_GE(took, 2500);  // the handler had its grace before the kill
  EXPECT_NE(out().find("ended, Killed (9)"), std::string::npos) << out();
  bool ended = false;
  client->rest(&ended);
  EXPECT_TRUE(ended);
}

TEST_F(Runtime, TermSignalEndsTheRuntimeAtOnce) {
  write_image(sleeper_script, 0755);
  start_serving();
  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  EXPECT_EQ(client->line(), "started");
  int64_t began = runtime_getclock();
  ASSERT_EQ(kill(pid_, SIGTERM), 0);
  int status = wait_exit();
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_LT(runtime_getclock() - began, 2000);
  // The runtime passes SIGTERM on to its handlers on the way out.
  bool ended = false;
  client->rest(&ended);
  EXPECT_TRUE(ended);
  EXPECT_FALSE(exists(worker_path()));
}

TEST_F(Runtime, StartWithoutDeployServesWithoutCheckOrReply) {
  // A restart trusts the earlier deployment: no image check, no marker.
  write_image(echo_script, 0755);
  start_serving();
  EXPECT_FALSE(exists(marker_path()));
  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  ASSERT_TRUE(client->send("again\n"));
  EXPECT_EQ(client->line(), "name=alpha");
}

TEST_F(Runtime, MalformedDatagramsAreDroppedAndTheirDescriptorsClosed) {
  write_image(echo_script, 0755);
  start_serving();
  std::string valid = encode_set_name("beta");
  ASSERT_TRUE(send_control("garbage"));
  ASSERT_TRUE(send_control(valid.substr(0, valid.size() - 1)));  // text cut short
  ASSERT_TRUE(send_control(valid + "x"));  // trailing byte
  std::string wrong_fingerprint = valid;
  wrong_fingerprint[0] ^= 1;
  ASSERT_TRUE(send_control(wrong_fingerprint));
  // A sockpass without its descriptor hands nothing on.
  ASSERT_TRUE(send_control(encode_sockpass()));

  // A descriptor that came with garbage is closed, not kept: the client's
  // end then sees the end of the stream.
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ASSERT_TRUE(send_control("garbage with a descriptor", ends[1]));
  close(ends[1]);
  Peer dropped(ends[0]);
  bool ended = false;
  EXPECT_EQ(dropped.rest(&ended), "");
  EXPECT_TRUE(ended);

  // And one passed with a message that is not sockpass.
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ASSERT_TRUE(send_control(encode_text(false, "hi"), ends[1]));
  close(ends[1]);
  Peer misplaced(ends[0]);
  EXPECT_EQ(misplaced.rest(&ended), "");
  EXPECT_TRUE(ended);

  // Still serving, and under its old name: no broken set_name took effect.
  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  ASSERT_TRUE(client->send("x\n"));
  EXPECT_EQ(client->line(), "name=alpha");
  EXPECT_TRUE(running());
  std::string log = err();
  size_t count = 0;
  for (size_t at = log.find("malformed control message"); at != std::string::npos;
       at = log.find("malformed control message", at + 1))
    ++count;
  EXPECT_EQ(count, 5u) << log;
  EXPECT_NE(log.find("sockpass without a connection"), std::string::npos) << log;
}

TEST_F(Runtime, ImageThatCannotBeExecutedLeavesTheRuntimeServing) {
  deploy_serving("#!/nonexistent/interpreter\n");
  auto client = pass_connection();
  EXPECT_EQ(client->reply().status, "upgrade");
  bool ended = false;
  EXPECT_EQ(client->rest(&ended), "");
  EXPECT_TRUE(ended);
  std::string expected = "handler not started, No such file or directory";
  EXPECT_TRUE(eventually([&] { return err().find(expected) != std::string::npos; })) << err();
  EXPECT_TRUE(running());
  ASSERT_TRUE(send_control(encode_shutdown()));
  int status = wait_exit();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Runtime, DeployDescriptorThatIsNoSocketEndsWithoutMarker) {
  write_image("#!/bin/sh\n");
  int pipe_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  std::vector<std::string> arguments = stack_arguments();
  arguments.push_back("--deploy");
  arguments.push_back(std::to_string(pipe_ends[0]));
  start(arguments, pipe_ends[0]);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
  int status = wait_exit();
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_FALSE(exists(marker_path()));
  EXPECT_NE(err().find("deployment connection"), std::string::npos) << err();

  // A number that is no descriptor at all ends the same way.
  arguments.back() = "987";
  start(arguments);
  status = wait_exit();
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_FALSE(exists(marker_path()));
}

TEST_F(Runtime, WrongArgumentVectorEndsWithStatusTwo) {
  for (std::vector<std::string> arguments : std::vector<std::vector<std::string>>{
           {},
           {"./stacks/" + key, "alpha", "./runenv", "./data/" + key},
           {"./stacks/" + key, "alpha", "./runenv", "./data/" + key, "--", "--deploy", "x"}}) {
    truncate((root_ + "/runtime.err").c_str(), 0);
    start(arguments);
    int status = wait_exit();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 2);
    std::string log = err();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_EQ(log.find('['), 0u) << log;  // the "[pid] " prefix
  }
  EXPECT_FALSE(exists(worker_path()));
}

}  // namespace

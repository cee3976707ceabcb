// The built appsrvctl run against a fake daemon: a loopback listener that
// reads each request frame with the socket family, parses it with the request
// module and answers as the test says with the reply module.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/istream.h"
#include "base/ostream.h"
#include "base/runtime.h"
#include "base/socket.h"
#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"

extern char** environ;

namespace {

// ---- the fake daemon ----------------------------------------------------

enum : uint32_t { kDelete = 0, kList = 1, kRename = 2, kSelect = 3, kUpload = 4 };

struct Request {
  uint32_t tag = 99;
  std::string name;  // stack_name, or old_name for rename
  std::string new_name;
  int64_t image_size = 0;
};

using reply_root = image___appsrv_protocol_reply___root_t;

// Builds one reply with the reply module and sends it as one frame.
void send_reply(socket_record* sock, const std::function<void(dympage*, reply_root*)>& build) {
  dympage* arena = image___appsrv_protocol_reply___create_allocator_f();
  reply_root* root = image___appsrv_protocol_reply___root_t___allocate_f(arena);
  build(arena, root);
  image___appsrv_protocol_reply___finalize_f(root);
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* output = ostream_create_memory(&buffer, &size);
  EXPECT_EQ(image___appsrv_protocol_reply___serialize_bin_f(root, output), 0);
  ostream_destroy(output);
  socket_message message{buffer, size};
  EXPECT_EQ(socket_msg_send(sock, nullptr, &message), 0) << socket_strerror(sock);
  free(buffer);
  image___appsrv_protocol_reply___destroy_allocator_f(arena);
}

void reply_failure(socket_record* sock, const char* reason) {
  send_reply(sock, [&](dympage* arena, reply_root* root) {
    auto* failure = image___appsrv_protocol_reply___root_t___status___iwrite_setto___failure(arena, root);
    image___appsrv_protocol_reply___root___status___failure_t___reason___iwrite_set(arena, failure, reason);
  });
}

void reply_names(socket_record* sock, const std::vector<std::string>& names) {
  send_reply(sock, [&](dympage* arena, reply_root* root) {
    auto* success = image___appsrv_protocol_reply___root_t___status___iwrite_setto___success(arena, root);
    auto* data = image___appsrv_protocol_reply___root___status___success_t___type___iwrite_setto___data(arena, success);
    for (const std::string& name : names)
      image___appsrv_protocol_reply___root___status___success___type___data_t___stack_names___iwrite_create_entry(
          arena, data, name.c_str());
  });
}

void reply_empty(socket_record* sock) {
  send_reply(sock, [&](dympage* arena, reply_root* root) {
    auto* success = image___appsrv_protocol_reply___root_t___status___iwrite_setto___success(arena, root);
    image___appsrv_protocol_reply___root___status___success_t___type___iwrite_setto___empty(arena, success);
  });
}

void reply_upgrade(socket_record* sock) {
  send_reply(sock, [&](dympage* arena, reply_root* root) {
    image___appsrv_protocol_reply___root_t___status___iwrite_setto___upgrade(arena, root);
  });
}

// Reads up to `size` raw bytes, fewer when the peer closes first.
std::string read_bytes(socket_record* sock, uint64_t size) {
  std::string bytes;
  char buffer[65536];
  while (bytes.size() < size && socket_is_alive(sock)) {
    uint64_t count = std::min<uint64_t>(sizeof buffer, size - bytes.size());
    if (socket_raw_recv(sock, buffer, &count) != 0) break;
    bytes.append(buffer, count);
  }
  return bytes;
}

Request parse_request(const socket_message& message) {
  Request request;
  dympage* arena = image___appsrv_protocol_request___create_allocator_f();
  auto* root = image___appsrv_protocol_request___root_t___allocate_f(arena);
  istream* input = istream_create_memory(message.data, message.size);
  int parsed = image___appsrv_protocol_request___parse_bin_f(arena, root, input);
  istream_destroy(input);
  EXPECT_EQ(parsed, 0) << (root->failure_reason ? root->failure_reason : "");
  if (parsed == 0 && root->type.set) {
    request.tag = root->type.tag;
    auto text = [](const message_text& field) { return std::string(field.text, field.length); };
    void* payload = root->type.payload;
    switch (request.tag) {
      case kDelete:
        request.name = text(static_cast<image___appsrv_protocol_request___root___type___delete_t*>(payload)->stack_name);
        break;
      case kSelect:
        request.name = text(static_cast<image___appsrv_protocol_request___root___type___select_t*>(payload)->stack_name);
        break;
      case kRename: {
        auto* rename = static_cast<image___appsrv_protocol_request___root___type___rename_t*>(payload);
        request.name = text(rename->old_name);
        request.new_name = text(rename->new_name);
        break;
      }
      case kUpload: {
        auto* upload = static_cast<image___appsrv_protocol_request___root___type___upload_t*>(payload);
        request.name = text(upload->stack_name);
        request.image_size = upload->image_size.value;
        break;
      }
      default:
        break;
    }
  }
  image___appsrv_protocol_request___destroy_allocator_f(arena);
  return request;
}

// Serves connections one at a time, as the daemon does, until destroyed.
class FakeDaemon {
 public:
  // Called for every connection with its request; closes it on return.
  using Script = std::function<void(socket_record* connection, const Request& request)>;

  explicit FakeDaemon(Script script, const char* host = "127.0.0.1") : script_(std::move(script)) {
    socket_address address{};
    if (socket_address_tcp(host, "0", &address) != 0 || socket_open(&address, 4, 1, &listener_) != 0) return;
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(listener_.descriptor, reinterpret_cast<sockaddr*>(&bound), &length);
    port_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                              : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    thread_ = std::thread([this] { serve(); });
  }

  ~FakeDaemon() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    socket_close(&listener_);
  }

  bool listening() const { return port_ != 0; }
  uint16_t port() const { return port_; }
  std::vector<Request> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    while (!stop_) {
      pollfd entry{listener_.descriptor, POLLIN, 0};
      if (poll(&entry, 1, 20) <= 0) continue;
      socket_record connection{};
      if (socket_accept(&listener_, 0, &connection) != 0) continue;
      socket_message message{};
      if (socket_msg_recv(&connection, nullptr, &message) == 0 && message.size > 0) {
        Request request = parse_request(message);
        {
          std::lock_guard<std::mutex> lock(mutex_);
          requests_.push_back(request);
        }
        script_(&connection, request);
      }
      socket_close(&connection);
    }
  }

  Script script_;
  socket_record listener_{0, 0, nullptr, -1, ~uint64_t{0}, nullptr, nullptr};
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<Request> requests_;
};

// ---- running the client -------------------------------------------------

struct Outcome {
  int status = -1;  // exit status, or -1 when it had to be killed
  std::string out;
  std::string err;
  int64_t elapsed_ms = 0;
};

std::string temporary_file(const std::string& contents) {
  char path[] = "/tmp/appsrvctl_test_XXXXXX";
  int fd = mkstemp(path);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(write(fd, contents.data(), contents.size()), static_cast<ssize_t>(contents.size()));
  close(fd);
  return path;
}

std::string slurp(const std::string& path) {
  std::string contents;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  char buffer[4096];
  ssize_t got;
  while (fd >= 0 && (got = read(fd, buffer, sizeof buffer)) > 0) contents.append(buffer, static_cast<size_t>(got));
  if (fd >= 0) close(fd);
  return contents;
}

// How a run is set up. The inherited environment loses APPSRV_ADDRESS,
// NO_COLOR and TERM before `variables` ("NAME=value") are added.
struct Setup {
  std::string input;  // standard input
  std::vector<std::string> variables;
  // 1 or 2: that stream is a pseudo-terminal and `out` or `err` holds what
  // appeared on it (the terminal turns "\n" into "\r\n").
  int terminal = 0;
};

Setup with_input(std::string input) {
  Setup setup;
  setup.input = std::move(input);
  return setup;
}

Setup with_variables(std::vector<std::string> variables, int terminal = 0) {
  Setup setup;
  setup.variables = std::move(variables);
  setup.terminal = terminal;
  return setup;
}

Outcome run(const std::vector<std::string>& arguments, const Setup& setup = Setup()) {
  std::string in_path = temporary_file(setup.input);
  std::string out_path = temporary_file("");
  std::string err_path = temporary_file("");
  std::vector<std::string> words = {APPSRVCTL_BINARY};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    std::string_view text = *variable;
    if (!text.starts_with("APPSRV_ADDRESS=") && !text.starts_with("NO_COLOR=") && !text.starts_with("TERM="))
      variables.emplace_back(text);
  }
  variables.insert(variables.end(), setup.variables.begin(), setup.variables.end());
  std::vector<char*> envp;
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);

  int in = open(in_path.c_str(), O_RDONLY | O_CLOEXEC);
  int out = open(out_path.c_str(), O_WRONLY | O_CLOEXEC);
  int err = open(err_path.c_str(), O_WRONLY | O_CLOEXEC);
  int master = -1;
  if (setup.terminal != 0) {
    master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(master, 0);
    EXPECT_EQ(grantpt(master), 0);
    EXPECT_EQ(unlockpt(master), 0);
    int& replaced = setup.terminal == 1 ? out : err;
    close(replaced);
    replaced = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(replaced, 0);
  }
  std::string on_terminal;
  auto drain = [&] {
    char buffer[4096];
    ssize_t got;
    pollfd entry{master, POLLIN, 0};
    while (master >= 0 && poll(&entry, 1, 0) > 0 && (got = read(master, buffer, sizeof buffer)) > 0)
      on_terminal.append(buffer, static_cast<size_t>(got));
  };
  int64_t started = runtime_getclock();
  pid_t pid = fork();
  if (pid == 0) {
    // dup2 clears close-on-exec on the copies.
    if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(in);
  close(out);
  close(err);
  Outcome result;
  int status = 0;
  // Bounded, so a hanging client fails its test instead of the whole run.
  while (waitpid(pid, &status, WNOHANG) == 0) {
    drain();
    if (runtime_getclock() - started > 20000) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      status = -1;
      break;
    }
    usleep(5000);
  }
  result.elapsed_ms = runtime_getclock() - started;
  if (status != -1 && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  drain();
  if (master >= 0) close(master);
  result.out = setup.terminal == 1 ? on_terminal : slurp(out_path);
  result.err = setup.terminal == 2 ? on_terminal : slurp(err_path);
  unlink(in_path.c_str());
  unlink(out_path.c_str());
  unlink(err_path.c_str());
  return result;
}

std::string address_of(const FakeDaemon& daemon) { return "127.0.0.1:" + std::to_string(daemon.port()); }

std::vector<std::string> with_address(const FakeDaemon& daemon, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--address", address_of(daemon)});
  return arguments;
}

// ---- tests --------------------------------------------------------------

TEST(Appsrvctl, ListPrintsOneNamePerLineInTheDaemonsOrder) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_names(sock, {"beta", "alpha", "esc\x1b[0m"}); });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"ls"}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "alpha\nbeta\nesc\x1b[0m\n") << "not a terminal: names go out as they are";
  EXPECT_EQ(result.err, "");
  ASSERT_EQ(daemon.requests().size(), 1u);
  EXPECT_EQ(daemon.requests()[0].tag, kList);
}

TEST(Appsrvctl, ListEscapesControlBytesOnATerminal) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_names(sock, {"alpha", "esc\x1b[0m\\"}); });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"ls"}), with_variables({}, 1));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "alpha\r\nesc\\x1b[0m\\\\\r\n");
}

TEST(Appsrvctl, ListJsonIsOneArrayOfEscapedStrings) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_names(sock, {"a\"b", "c\\d", "e\x01" "f"}); });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"list", "--json"}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "[\"a\\\"b\",\"c\\\\d\",\"e\\u0001f\"]\n");

  FakeDaemon empty([](socket_record* sock, const Request&) { reply_names(sock, {}); });
  ASSERT_TRUE(empty.listening());
  EXPECT_EQ(run(with_address(empty, {"list", "--json"})).out, "[]\n");
}

TEST(Appsrvctl, AddressComesFromTheEnvironmentWithoutAFlag) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_names(sock, {"only"}); });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run({"ls"}, with_variables({"APPSRV_ADDRESS=" + address_of(daemon)}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "only\n");
}

TEST(Appsrvctl, Ipv6AddressInBrackets) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_names(sock, {"six"}); }, "::1");
  if (!daemon.listening()) GTEST_SKIP() << "no IPv6 loopback here";
  Outcome result = run({"--address", "[::1]:" + std::to_string(daemon.port()), "ls"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "six\n");
}

TEST(Appsrvctl, DeleteReportsUnknownNamesUnlessForced) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_failure(sock, "unknown name"); });
  ASSERT_TRUE(daemon.listening());
  std::string prefix = "appsrvctl: " + address_of(daemon) + ": ";

  Outcome plain = run(with_address(daemon, {"delete", "gone"}));
  EXPECT_EQ(plain.status, 3);
  EXPECT_EQ(plain.err, prefix + "delete 'gone': unknown name\n");

  Outcome forced = run(with_address(daemon, {"rm", "--force", "gone"}));
  EXPECT_EQ(forced.status, 0) << forced.err;
  EXPECT_EQ(forced.err, prefix + "delete 'gone': already gone\n");
  ASSERT_EQ(daemon.requests().size(), 2u);
  EXPECT_EQ(daemon.requests()[1].tag, kDelete);
  EXPECT_EQ(daemon.requests()[1].name, "gone");
}

TEST(Appsrvctl, FailureReasonsBecomeStatuses) {
  FakeDaemon daemon([](socket_record* sock, const Request& request) {
    reply_failure(sock, request.name == "dup" ? "duplicate name" : "spawn child");
  });
  ASSERT_TRUE(daemon.listening());
  Outcome other = run(with_address(daemon, {"select", "x"}));
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.err, "appsrvctl: " + address_of(daemon) + ": select 'x': spawn child\n");
  Outcome taken = run(with_address(daemon, {"rename", "dup", "b"}));
  EXPECT_EQ(taken.status, 4);
  EXPECT_EQ(taken.err, "appsrvctl: " + address_of(daemon) + ": rename 'dup' to 'b': duplicate name\n");
}

TEST(Appsrvctl, RenameEndsWithTheStacksUpgrade) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_upgrade(sock); });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"rename", "old", "new"}), with_input("must not be sent\n"));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "appsrvctl: " + address_of(daemon) + ": rename 'old' to 'new': renamed\n");
  ASSERT_EQ(daemon.requests().size(), 1u);
  EXPECT_EQ(daemon.requests()[0].tag, kRename);
  EXPECT_EQ(daemon.requests()[0].name, "old");
  EXPECT_EQ(daemon.requests()[0].new_name, "new");
}

TEST(Appsrvctl, InvalidNamesAreRefusedWithoutAsking) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_empty(sock); });
  ASSERT_TRUE(daemon.listening());
  std::string prefix = "appsrvctl: " + address_of(daemon) + ": ";
  Outcome del = run(with_address(daemon, {"delete", "tab\there"}));
  EXPECT_EQ(del.status, 1);
  EXPECT_EQ(del.err, prefix + "delete 'tab\\x09here': invalid name\n");
  Outcome ren = run(with_address(daemon, {"rename", "ok", std::string(1024, 'n')}));
  EXPECT_EQ(ren.status, 1);
  EXPECT_NE(ren.err.find("invalid new name"), std::string::npos) << ren.err;
  EXPECT_TRUE(daemon.requests().empty());
}

TEST(Appsrvctl, UploadRefusesATakenNameBeforeSendingTheImage) {
  FakeDaemon daemon([](socket_record* sock, const Request&) { reply_names(sock, {"app", "other"}); });
  ASSERT_TRUE(daemon.listening());
  std::string image = temporary_file("image bytes");
  Outcome result = run(with_address(daemon, {"upload", "app", image}));
  unlink(image.c_str());
  EXPECT_EQ(result.status, 4);
  EXPECT_EQ(result.err, "appsrvctl: " + address_of(daemon) + ": upload 'app': duplicate name\n");
  ASSERT_EQ(daemon.requests().size(), 1u) << "nothing but the list request";
  EXPECT_EQ(daemon.requests()[0].tag, kList);
}

TEST(Appsrvctl, UploadStreamsALargeImageAndReportsTheStacksAnswer) {
  // Well beyond the socket buffers, so the client must keep streaming.
  std::string contents(24u << 20, '\0');
  for (size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>((i * 2654435761u) >> 13);
  std::string image = temporary_file(contents);
  std::string received;
  FakeDaemon daemon([&](socket_record* sock, const Request& request) {
    if (request.tag == kList) return reply_names(sock, {"other"});
    received = read_bytes(sock, static_cast<uint64_t>(request.image_size));
    reply_empty(sock);
  });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"upload", "app", image}));
  unlink(image.c_str());
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "appsrvctl: " + address_of(daemon) + ": upload 'app': deployed (24.0 MiB)\n");
  auto requests = daemon.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].tag, kUpload);
  EXPECT_EQ(requests[1].name, "app");
  EXPECT_EQ(requests[1].image_size, static_cast<int64_t>(contents.size()));
  EXPECT_TRUE(received == contents) << "received " << received.size() << " bytes";
}

TEST(Appsrvctl, UploadShowsProgressOnlyOnATerminalThatAllowsIt) {
  std::string image = temporary_file(std::string(3u << 20, 'p'));
  FakeDaemon daemon([](socket_record* sock, const Request& request) {
    if (request.tag == kList) return reply_names(sock, {});
    read_bytes(sock, static_cast<uint64_t>(request.image_size));
    reply_empty(sock);
  });
  ASSERT_TRUE(daemon.listening());
  Outcome shown = run(with_address(daemon, {"upload", "app", image}), with_variables({"TERM=xterm"}, 2));
  Outcome plain = run(with_address(daemon, {"upload", "app", image}), with_variables({"NO_COLOR=1"}, 2));
  unlink(image.c_str());
  EXPECT_EQ(shown.status, 0) << shown.err;
  size_t full = shown.err.find("\r  3.0 MiB / 3.0 MiB  100%");
  size_t report = shown.err.find("\r\nappsrvctl: ");
  ASSERT_NE(full, std::string::npos) << shown.err;
  EXPECT_GT(report, full) << "the bar ends its line before the report: " << shown.err;
  EXPECT_EQ(shown.err.find('\n'), report + 1);
  EXPECT_EQ(plain.status, 0) << plain.err;
  EXPECT_EQ(plain.err, "appsrvctl: " + address_of(daemon) + ": upload 'app': deployed (3.0 MiB)\r\n");
}

TEST(Appsrvctl, UploadTakesAnEarlyRefusalWhileStreaming) {
  std::string image = temporary_file(std::string(16u << 20, 'x'));
  FakeDaemon daemon([](socket_record* sock, const Request& request) {
    if (request.tag == kList) return reply_names(sock, {});
    // Refuses at once and leaves the image unread, as a daemon that will not
    // hold it does; the close then resets the client's side.
    reply_failure(sock, "image too large");
    usleep(200000);
  });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"upload", "big", image}));
  unlink(image.c_str());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "appsrvctl: " + address_of(daemon) + ": upload 'big': image too large\n");
}

TEST(Appsrvctl, UploadWithoutAnAnswerIsUnreachable) {
  std::string image = temporary_file("tiny image");
  FakeDaemon daemon([](socket_record* sock, const Request& request) {
    if (request.tag == kList) return reply_names(sock, {});
    read_bytes(sock, static_cast<uint64_t>(request.image_size));
  });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"upload", "app", image}));
  unlink(image.c_str());
  EXPECT_EQ(result.status, 5);
  EXPECT_EQ(result.err, "appsrvctl: " + address_of(daemon) + ": upload 'app': connection closed without a reply\n");
}

TEST(Appsrvctl, SelectJoinsStandardInputAndOutputToTheStack) {
  FakeDaemon daemon([](socket_record* sock, const Request& request) {
    if (request.name != "app") return reply_failure(sock, "unknown name");
    reply_upgrade(sock);
    // The application reads to the end of its input, then answers.
    // socket_raw_recv closes the socket at the end of the input, so the
    // half-closed connection is read with plain recv here.
    std::string input;
    char buffer[256];
    ssize_t got;
    while ((got = recv(sock->descriptor, buffer, sizeof buffer, 0)) > 0) input.append(buffer, static_cast<size_t>(got));
    std::string answer = "got " + std::to_string(input.size()) + ": " + input;
    uint64_t size = answer.size();
    EXPECT_EQ(socket_raw_send(sock, answer.data(), &size), 0);
  });
  ASSERT_TRUE(daemon.listening());
  Outcome result = run(with_address(daemon, {"attach", "app"}), with_input("hello\nworld\n"));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "got 12: hello\nworld\n");
  EXPECT_EQ(result.err, "");
}

TEST(Appsrvctl, SelectAsksOnceMoreWhileTheStackIsResurrected) {
  int answered = 0;
  FakeDaemon daemon([&](socket_record* sock, const Request&) {
    if (answered++ < 2) return reply_failure(sock, "resurrecting dead stack");
    reply_upgrade(sock);
  });
  ASSERT_TRUE(daemon.listening());
  Outcome first = run(with_address(daemon, {"select", "app"}));
  EXPECT_EQ(first.status, 1) << "asked twice, resurrecting both times";
  EXPECT_EQ(daemon.requests().size(), 2u);
  Outcome second = run(with_address(daemon, {"select", "app"}));
  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(daemon.requests().size(), 3u) << "the stack is running now: one request";
}

TEST(Appsrvctl, UnreachableAndSilentDaemonsEndWithStatusFive) {
  int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  close(probe);  // the port is now free and nobody listens on it
  std::string closed = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  Outcome refused = run({"--address", closed, "ls"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_EQ(refused.err, "appsrvctl: " + closed + ": list: cannot connect: Connection refused\n");

  FakeDaemon silent([](socket_record*, const Request&) { usleep(1500000); });
  ASSERT_TRUE(silent.listening());
  Outcome timed_out = run(with_address(silent, {"--timeout", "0.3", "ls"}));
  EXPECT_EQ(timed_out.status, 5);
  EXPECT_EQ(timed_out.err, "appsrvctl: " + address_of(silent) + ": list: timed out after 0.3 s waiting for a reply\n");
  EXPECT_LT(timed_out.elapsed_ms, 1400) << "gave up before the daemon closed";
}

TEST(Appsrvctl, ConnectingGivesUpAfterTheTimeout) {
  // A listener whose queue is full drops further connection attempts, so
  // the client's connect would wait for the kernel's retries.
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  std::vector<int> fillers;
  for (int i = 0; i < 2; ++i) {
    int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address);
    fillers.push_back(filler);
  }
  usleep(50000);
  std::string target = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  Outcome result = run({"--timeout", "0.5", "--address", target, "ls"});
  for (int filler : fillers) close(filler);
  close(listener);
  EXPECT_EQ(result.status, 5);
  EXPECT_EQ(result.err, "appsrvctl: " + target + ": list: timed out connecting after 0.5 s\n");
  EXPECT_LT(result.elapsed_ms, 1500);
}

TEST(Appsrvctl, UsageErrorsEndWithStatusTwoAndAUsageLine) {
  Outcome missing = run({"delete"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err, "appsrvctl: missing arguments for delete\nusage: appsrvctl delete [--force] NAME\n");
  Outcome help = run({"rm", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: appsrvctl delete [--force] NAME\n", 0), 0u) << help.out;
}

}  // namespace

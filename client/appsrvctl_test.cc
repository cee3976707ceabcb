// The built appsrvctl run against a fake daemon: a loopback listener that
// reads each request frame with the socket family, parses it with the request
// module and answers as the test says, in the reply layout.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/istream.h"
#include "base/runtime.h"
#include "base/socket.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "protocol/message_testing.h"

namespace {

// ---- the fake daemon ----------------------------------------------------

#define REQ(name) image___appsrv_protocol_request___##name

enum : uint32_t { kDelete = 0, kList = 1, kRename = 2, kSelect = 3, kUpload = 4 };

struct Request {
  uint32_t tag = 99;
  std::string what;  // "list", "delete NAME", "rename OLD NEW", ...
  int64_t image_size = 0;
};

Request parse_request(const socket_message& message) {
  Request request;
  dympage* arena = REQ(create_allocator_f)();
  auto* root = REQ(root_t___allocate_f)(arena);
  istream* input = istream_create_memory(message.data, message.size);
  int parsed = REQ(parse_bin_f)(arena, root, input);
  istream_destroy(input);
  EXPECT_EQ(parsed, 0);
  auto text = [](const message_text& field) { return " " + std::string(field.text, field.length); };
  void* payload = root->type.payload;
  request.tag = parsed == 0 && root->type.set ? root->type.tag : 99;
  if (request.tag == kList) request.what = "list";
  if (request.tag == kDelete) request.what = "delete" + text(static_cast<REQ(root___type___delete_t)*>(payload)->stack_name);
  if (request.tag == kSelect) request.what = "select" + text(static_cast<REQ(root___type___select_t)*>(payload)->stack_name);
  if (auto* rename = static_cast<REQ(root___type___rename_t)*>(payload); request.tag == kRename)
    request.what = "rename" + text(rename->old_name) + text(rename->new_name);
  if (auto* upload = static_cast<REQ(root___type___upload_t)*>(payload); request.tag == kUpload) {
    request.what = "upload" + text(upload->stack_name);
    request.image_size = upload->image_size.value;
  }
  REQ(destroy_allocator_f)(arena);
  return request;
}

enum Kind { kFailure, kNames, kEmpty, kUpgrade, kNothing };
struct Reply {
  Reply(Kind kind, std::vector<std::string> text = {}) : kind(kind), text(std::move(text)) {}
  Kind kind;
  std::vector<std::string> text;  // the reason, or the names in ascending order
};

// One reply frame in the reply module's layout: the fingerprint, the status
// (failure 0, success 1, upgrade 2), then what the status holds.
void send_reply(socket_record* sock, const Reply& reply) {
  if (reply.kind == kNothing) return;
  Wire wire;
  if (reply.kind == kFailure) wire.u32(0).text(reply.text[0]);
  if (reply.kind == kNames) wire.u32(1).u32(0).u32(static_cast<uint32_t>(reply.text.size()));
  if (reply.kind == kNames)
    for (const std::string& name : reply.text) wire.text(name);
  if (reply.kind == kEmpty) wire.u32(1).u32(1);
  if (reply.kind == kUpgrade) wire.u32(2);
  socket_message message{wire.str().data(), wire.str().size()};
  EXPECT_EQ(socket_msg_send(sock, nullptr, &message), 0) << socket_strerror(sock);
}

// Serves connections one at a time, as the daemon does, until destroyed.
class FakeDaemon {
 public:
  // Called for every connection with its request; closes it on return.
  using Script = std::function<void(socket_record* connection, const Request& request)>;

  explicit FakeDaemon(Script script, const char* host = "127.0.0.1") : script_(std::move(script)) {
    socket_address address{};
    sockaddr_in6 bound{};  // an IPv4 port sits at the same place
    socklen_t length = sizeof bound;
    if (socket_address_tcp(host, "0", &address) != 0 || socket_open(&address, 4, 1, &listener_) != 0) return;
    getsockname(listener_.descriptor, reinterpret_cast<sockaddr*>(&bound), &length);
    port = ntohs(bound.sin6_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeDaemon() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    socket_close(&listener_);
  }

  std::string address() const { return "127.0.0.1:" + std::to_string(port); }
  std::string requests() {  // "; " between them
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  uint16_t port = 0;  // 0 when it could not listen

 private:
  void serve() {
    while (!stop_) {
      pollfd entry{listener_.descriptor, POLLIN, 0};
      socket_record connection{};
      if (poll(&entry, 1, 20) <= 0 || socket_accept(&listener_, 0, &connection) != 0) continue;
      socket_message message{};
      if (socket_msg_recv(&connection, nullptr, &message) == 0 && message.size > 0) {
        Request request = parse_request(message);
        {
          std::lock_guard<std::mutex> lock(mutex_);
          requests_ += (requests_.empty() ? "" : "; ") + request.what;
        }
        script_(&connection, request);
      }
      socket_close(&connection);
    }
  }

  Script script_;
  socket_record listener_{0, 0, nullptr, -1, ~uint64_t{0}, nullptr, nullptr};
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::string requests_;
};

// Answers the n-th connection with replies[n], the last one from then on. An
// upload's image is read (into `image`) unless the answer refuses it; after an
// upgrade the "application" reads all its input and answers "got N: INPUT".
FakeDaemon::Script answer(std::vector<Reply> replies, std::string* image = nullptr) {
  return [replies, image, n = size_t{0}](socket_record* sock, const Request& request) mutable {
    const Reply& reply = replies[std::min(n++, replies.size() - 1)];
    std::string bytes;
    char buffer[65536];
    while (request.tag == kUpload && reply.kind != kFailure && bytes.size() < uint64_t(request.image_size)) {
      uint64_t count = std::min<uint64_t>(sizeof buffer, uint64_t(request.image_size) - bytes.size());
      if (!socket_is_alive(sock) || socket_raw_recv(sock, buffer, &count) != 0) break;
      bytes.append(buffer, count);
    }
    if (image != nullptr) *image = std::move(bytes);
    send_reply(sock, reply);
    if (reply.kind != kUpgrade) return;
    // Plain recv: socket_raw_recv closes the socket at the end of the input.
    for (ssize_t got; (got = recv(sock->descriptor, buffer, sizeof buffer, 0)) > 0;) bytes.append(buffer, size_t(got));
    std::string said = "got " + std::to_string(bytes.size()) + ": " + bytes;
    send(sock->descriptor, said.data(), said.size(), MSG_NOSIGNAL);
  };
}

// ---- running the client -------------------------------------------------

struct TempFile {
  std::string path = "/tmp/appsrvctl_test_XXXXXX";
  explicit TempFile(const std::string& contents) {
    int fd = mkstemp(path.data());
    EXPECT_EQ(write(fd, contents.data(), contents.size()), static_cast<ssize_t>(contents.size()));
    close(fd);
  }
  ~TempFile() { unlink(path.c_str()); }
};

struct Setup {
  Setup(std::string input = "", int terminal = 0, std::vector<std::pair<std::string, std::string>> variables = {})
      : input(std::move(input)), terminal(terminal), variables(std::move(variables)) {}
  std::string input;  // standard input
  int terminal;  // 1 or 2: that stream is a pseudo-terminal (which shows "\n" as "\r\n")
  // Set after APPSRV_ADDRESS, NO_COLOR and TERM are taken out of the environment.
  std::vector<std::pair<std::string, std::string>> variables;
};

struct Outcome {
  int status = -1;  // exit status, or -1 when it had to be killed
  std::string out;
  std::string err;
  int64_t elapsed_ms = 0;
};

Outcome run(std::vector<std::string> words, const Setup& setup = {}) {
  for (const char* name : {"APPSRV_ADDRESS", "NO_COLOR", "TERM"}) unsetenv(name);
  for (const auto& [name, value] : setup.variables) setenv(name.c_str(), value.c_str(), 1);
  std::vector<char*> argv = {const_cast<char*>(APPSRVCTL_BINARY)};
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int files[3];
  for (int& fd : files) fd = memfd_create("appsrvctl_test", MFD_CLOEXEC);
  EXPECT_EQ(pwrite(files[0], setup.input.data(), setup.input.size(), 0), ssize_t(setup.input.size()));
  int master = setup.terminal == 0 ? -1 : posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0) {
    close(files[setup.terminal]);
    files[setup.terminal] = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  Outcome result;
  int64_t started = runtime_getclock();
  pid_t pid = fork();
  if (pid == 0) {
    for (int fd = 0; fd < 3; ++fd)  // dup2 clears close-on-exec on the copies
      if (dup2(files[fd], fd) < 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  // Bounded, so a hanging client fails its test instead of the whole run.
  for (; waitpid(pid, &status, WNOHANG) == 0; usleep(5000))
    if (runtime_getclock() - started > 20000) kill(pid, SIGKILL);
  result.elapsed_ms = runtime_getclock() - started;
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  char buffer[4096];
  std::string* streams[3] = {nullptr, &result.out, &result.err};
  for (int fd = 1; fd < 3; ++fd)
    for (ssize_t got, at = 0; fd != setup.terminal && (got = pread(files[fd], buffer, sizeof buffer, at)) > 0; at += got)
      streams[fd]->append(buffer, size_t(got));
  // The few lines put on the terminal wait on its master side.
  pollfd entry{master, POLLIN, 0};
  for (ssize_t got; master >= 0 && poll(&entry, 1, 100) > 0 && (got = read(master, buffer, sizeof buffer)) > 0;)
    streams[setup.terminal]->append(buffer, size_t(got));
  for (int fd : {files[0], files[1], files[2], master}) close(fd);
  return result;
}

// One run against a fake daemon giving `replies`; the client gets
// "--address ADDRESS" before `arguments`, where IMAGE stands for a small file.
struct Scenario {
  std::vector<Reply> replies;
  std::vector<std::string> arguments;
  Setup setup;
  int status;
  std::string out;
  std::string err;  // "@" stands for "appsrvctl: ADDRESS: "
  std::string requests;  // what reached the daemon
};

void check(const std::vector<Scenario>& scenarios) {
  for (const Scenario& s : scenarios) {
    FakeDaemon daemon(answer(s.replies));
    ASSERT_NE(daemon.port, 0);
    TempFile image("image bytes");
    std::vector<std::string> arguments = {"--address", daemon.address()};
    for (const std::string& word : s.arguments) arguments.push_back(word == "IMAGE" ? image.path : word);
    SCOPED_TRACE(arguments[2] + " " + (arguments.size() > 3 ? arguments[3] : ""));
    Outcome result = run(arguments, s.setup);
    std::string err;
    for (char c : s.err) err += c == '@' ? "appsrvctl: " + daemon.address() + ": " : std::string(1, c);
    EXPECT_EQ(result.status, s.status) << result.err;
    EXPECT_EQ(result.out, s.out);
    EXPECT_EQ(result.err, err);
    EXPECT_EQ(daemon.requests(), s.requests);
  }
}

// ---- tests --------------------------------------------------------------

TEST(Appsrvctl, ListPrintsNamesAsTheyAreToAPipeEscapedOnATerminalOrAsJson) {
  check({
      {{{kNames, {"alpha", "beta", "esc\x1b[0m"}}}, {"ls"}, {}, 0, "alpha\nbeta\nesc\x1b[0m\n", "", "list"},
      {{{kNames, {"alpha", "esc\x1b[0m\\"}}}, {"list"}, {"", 1}, 0, "alpha\r\nesc\\x1b[0m\\\\\r\n", "", "list"},
      {{{kNames, {"a\"b", "c\\d", "e\x01" "f"}}}, {"list", "--json"}, {}, 0,
       "[\"a\\\"b\",\"c\\\\d\",\"e\\u0001f\"]\n", "", "list"},
      {{{kNames, {}}}, {"list", "--json"}, {}, 0, "[]\n", "", "list"},
  });
}

TEST(Appsrvctl, FailureReasonsBecomeStatusesAndForceForgivesAnUnknownName) {
  check({
      {{{kFailure, {"unknown name"}}}, {"delete", "gone"}, {}, 3, "", "@delete 'gone': unknown name\n", "delete gone"},
      {{{kFailure, {"unknown name"}}}, {"rm", "--force", "gone"}, {}, 0, "", "@delete 'gone': already gone\n",
       "delete gone"},
      {{{kEmpty}}, {"delete", "app"}, {}, 0, "", "@delete 'app': deleted\n", "delete app"},
      {{{kFailure, {"spawn child"}}}, {"select", "x"}, {}, 1, "", "@select 'x': spawn child\n", "select x"},
      {{{kFailure, {"duplicate name"}}}, {"rename", "dup", "b"}, {}, 4, "", "@rename 'dup' to 'b': duplicate name\n",
       "rename dup b"},
      // The renamed stack takes the connection over; nothing is sent to it.
      {{{kUpgrade}}, {"rename", "old", "new"}, {"must not be sent\n"}, 0, "",
       "@rename 'old' to 'new': renamed\n", "rename old new"},
  });
}

TEST(Appsrvctl, BadNamesAndTakenUploadNamesAreRefusedBeforeTheImageIsSent) {
  check({
      {{{kEmpty}}, {"delete", "tab\there"}, {}, 1, "", "@delete 'tab\\x09here': invalid name\n", ""},
      {{{kEmpty}}, {"rename", "ok", std::string(1024, 'n')}, {}, 1, "",
       "@rename 'ok' to '" + std::string(1024, 'n') + "': invalid new name\n", ""},
      {{{kEmpty}}, {"upload", "a\nb", "IMAGE"}, {}, 1, "", "@upload 'a\\x0ab': invalid name\n", ""},
      {{{kNames, {"app", "other"}}}, {"upload", "app", "IMAGE"}, {}, 4, "", "@upload 'app': duplicate name\n", "list"},
      {{{kNames, {}}, {kNothing}}, {"upload", "app", "IMAGE"}, {}, 5, "",
       "@upload 'app': connection closed without a reply\n", "list; upload app"},
  });
}

TEST(Appsrvctl, SelectJoinsStdinAndStdoutAndAsksOnceMoreWhileTheStackIsResurrected) {
  Reply resurrecting{kFailure, {"resurrecting dead stack"}};
  check({
      {{{kUpgrade}}, {"attach", "app"}, {"hello\nworld\n"}, 0, "got 12: hello\nworld\n", "", "select app"},
      {{resurrecting, {kUpgrade}}, {"select", "app"}, {}, 0, "got 0: ",
       "@select 'app': resurrecting dead stack, asking again\n", "select app; select app"},
      {{resurrecting}, {"select", "app"}, {}, 1, "",
       "@select 'app': resurrecting dead stack, asking again\n@select 'app': resurrecting dead stack\n",
       "select app; select app"},
  });
}

TEST(Appsrvctl, AddressComesFromTheFlagThenTheEnvironmentWithIpv6InBrackets) {
  FakeDaemon daemon(answer({{kNames, {"only"}}}));
  ASSERT_NE(daemon.port, 0);
  Outcome from_variable = run({"ls"}, {"", 0, {{"APPSRV_ADDRESS", daemon.address()}}});
  EXPECT_EQ(from_variable.status, 0) << from_variable.err;
  EXPECT_EQ(from_variable.out, "only\n");
  Outcome from_flag = run({"ls", "--address", daemon.address()}, {"", 0, {{"APPSRV_ADDRESS", "127.0.0.1:1"}}});
  EXPECT_EQ(from_flag.status, 0) << from_flag.err;
  EXPECT_EQ(daemon.requests(), "list; list");

  FakeDaemon six(answer({{kNames, {"six"}}}), "::1");
  if (six.port == 0) GTEST_SKIP() << "no IPv6 loopback here";
  Outcome result = run({"--address", "[::1]:" + std::to_string(six.port), "ls"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "six\n");
}

TEST(Appsrvctl, UploadStreamsAnImageLargerThanTheSocketBuffersByteForByte) {
  std::string contents(24u << 20, '\0');
  for (size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>((i * 2654435761u) >> 13);
  TempFile image(contents);
  std::string received;
  FakeDaemon daemon(answer({{kNames, {"other"}}, {kEmpty}}, &received));
  ASSERT_NE(daemon.port, 0);
  Outcome result = run({"--address", daemon.address(), "upload", "app", image.path});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "appsrvctl: " + daemon.address() + ": upload 'app': deployed (24.0 MiB)\n");
  EXPECT_EQ(daemon.requests(), "list; upload app");
  EXPECT_TRUE(received == contents) << "received " << received.size() << " bytes";
}

TEST(Appsrvctl, UploadShowsProgressOnlyOnATerminalWithoutNoColor) {
  TempFile image(std::string(3u << 20, 'p'));
  FakeDaemon daemon(answer({{kNames, {}}, {kEmpty}}));
  ASSERT_NE(daemon.port, 0);
  std::vector<std::string> upload = {"--address", daemon.address(), "upload", "app", image.path};
  Outcome shown = run(upload, {"", 2, {{"TERM", "xterm"}}});
  Outcome plain = run(upload, {"", 2, {{"NO_COLOR", "1"}}});
  EXPECT_EQ(shown.status, 0) << shown.err;
  size_t full = shown.err.find("\r  3.0 MiB / 3.0 MiB  100%");
  ASSERT_NE(full, std::string::npos) << shown.err;
  EXPECT_GT(shown.err.find("\r\nappsrvctl: "), full) << "the bar ends its line before the report: " << shown.err;
  EXPECT_EQ(shown.err.find('\n'), shown.err.find("\r\nappsrvctl: ") + 1);
  EXPECT_EQ(plain.status, 0) << plain.err;
  EXPECT_EQ(plain.err, "appsrvctl: " + daemon.address() + ": upload 'app': deployed (3.0 MiB)\r\n");
}

TEST(Appsrvctl, UploadTakesAnEarlyRefusalWhileStreaming) {
  TempFile image(std::string(16u << 20, 'x'));
  FakeDaemon daemon([](socket_record* sock, const Request& request) {
    if (request.tag == kList) return send_reply(sock, {kNames, {}});
    // Refuses at once and leaves the image unread, as a daemon that will not
    // hold it does; the close then resets the client's side.
    send_reply(sock, {kFailure, {"image too large"}});
    usleep(200000);
  });
  ASSERT_NE(daemon.port, 0);
  Outcome result = run({"--address", daemon.address(), "upload", "big", image.path});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "appsrvctl: " + daemon.address() + ": upload 'big': image too large\n");
}

TEST(Appsrvctl, RefusedFullOrSilentDaemonsEndWithStatusFiveWithinTheTimeout) {
  std::string gone = FakeDaemon(answer({{kEmpty}})).address();
  Outcome refused = run({"--address", gone, "ls"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_EQ(refused.err, "appsrvctl: " + gone + ": list: cannot connect: Connection refused\n");

  // A listener with a full queue drops further connection attempts, so
  // connect would wait for the kernel's retries.
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  ASSERT_TRUE(bind(listener, raw, length) == 0 && listen(listener, 0) == 0 && getsockname(listener, raw, &length) == 0);
  int fillers[2];
  for (int& filler : fillers) connect(filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), raw, length);
  usleep(50000);
  std::string target = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  Outcome full = run({"--timeout", "0.5", "--address", target, "ls"});
  for (int fd : {fillers[0], fillers[1], listener}) close(fd);
  EXPECT_EQ(full.status, 5);
  EXPECT_EQ(full.err, "appsrvctl: " + target + ": list: timed out connecting after 0.5 s\n");
  EXPECT_LT(full.elapsed_ms, 1500);

  FakeDaemon silent([](socket_record*, const Request&) { usleep(1500000); });
  ASSERT_NE(silent.port, 0);
  Outcome timed_out = run({"--address", silent.address(), "--timeout", "0.3", "ls"});
  EXPECT_EQ(timed_out.status, 5);
  EXPECT_EQ(timed_out.err, "appsrvctl: " + silent.address() + ": list: timed out after 0.3 s waiting for a reply\n");
  EXPECT_LT(timed_out.elapsed_ms, 1400) << "gave up before the daemon closed";
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

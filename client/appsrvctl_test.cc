// The built appsrvctl run against a fake daemon: a loopback listener that
// reads each request frame with the socket family, parses it with the request
// module and answers as the test says, in the reply layout.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <regex>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/runtime.h"
#include "base/socket.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "tests/support/message_testing.h"

namespace {

// ---- the fake daemon ----------------------------------------------------

#define REQ(name) image___appsrv_protocol_request___##name

struct Request {
  std::string what;  // "list", "delete NAME", "rename OLD NEW", ...
  int64_t image_size = 0;  // of an upload
};

Request parse_request(const socket_message& message) {
  TestArena arena;
  auto* root = REQ(root_t___allocate_f)(arena);
  std::string bytes(static_cast<const char*>(message.data), message.size);
  int parsed = parse_with(&REQ(parse_bin_f), arena, root, bytes);
  EXPECT_EQ(parsed, 0) << (root->failure_reason != nullptr ? root->failure_reason : "");
  auto text = [](const message_text& field) { return " " + std::string(field.text, field.length); };
  void* payload = root->type.payload;
  Request request;
  uint32_t tag = parsed == 0 && root->type.set ? root->type.tag : 99;
  if (tag == REQ(root_t___type___tag___list)) request.what = "list";
  if (tag == REQ(root_t___type___tag___delete))
    request.what = "delete" + text(static_cast<REQ(root___type___delete_t)*>(payload)->stack_name);
  if (tag == REQ(root_t___type___tag___select))
    request.what = "select" + text(static_cast<REQ(root___type___select_t)*>(payload)->stack_name);
  if (auto* rename = static_cast<REQ(root___type___rename_t)*>(payload); tag == REQ(root_t___type___tag___rename))
    request.what = "rename" + text(rename->old_name) + text(rename->new_name);
  if (auto* upload = static_cast<REQ(root___type___upload_t)*>(payload); tag == REQ(root_t___type___tag___upload)) {
    request.what = "upload" + text(upload->stack_name);
    request.image_size = upload->image_size.value;
  }
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
  if (reply.kind == kFailure) wire.u32(0);
  if (reply.kind == kNames) wire.u32(1).u32(0).u32(static_cast<uint32_t>(reply.text.size()));
  if (reply.kind == kEmpty) wire.u32(1).u32(1);
  if (reply.kind == kUpgrade) wire.u32(2);
  for (const std::string& text : reply.text) wire.text(text);
  socket_message message{wire.str().data(), wire.str().size()};
  EXPECT_EQ(socket_msg_send(sock, nullptr, &message), 0) << socket_strerror(sock);
}

// Serves connections one at a time, as the daemon does, until destroyed. The
// n-th request gets replies[n], the last one from then on. An upload's image
// is read (into `image`) unless the reply refuses it; after an upgrade the
// "application" reads all its input and answers "got N: INPUT". A daemon that
// leaves the image unread or does not answer closes a second later (the close
// then resets the client's side).
struct FakeDaemon {
  explicit FakeDaemon(std::vector<Reply> replies, std::string* image = nullptr, const char* host = "127.0.0.1") {
    socket_address address{};
    sockaddr_in6 bound{};  // an IPv4 port sits at the same place
    socklen_t length = sizeof bound;
    if (socket_address_tcp(host, "0", &address) != 0 || socket_open(&address, 4, 1, &listener) != 0) return;
    getsockname(listener.descriptor, reinterpret_cast<sockaddr*>(&bound), &length);
    port = ntohs(bound.sin6_port);
    thread = std::thread([this, replies, image] {
      socket_message message{};
      for (size_t n = 0; socket_accept(&listener, 0, &connection) == 0; socket_close(&connection))
        if (socket_msg_recv(&connection, nullptr, &message) == 0 && message.size > 0)
          serve(parse_request(message), replies[std::min(n++, replies.size() - 1)], image);
    });
  }
  ~FakeDaemon() {
    shutdown(listener.descriptor, SHUT_RDWR);  // ends the accept
    if (thread.joinable()) thread.join();
    socket_close(&listener);
  }
  std::string address() const { return "127.0.0.1:" + std::to_string(port); }
  std::string requests() {  // "; " between them
    std::lock_guard<std::mutex> lock(mutex);
    return log;
  }

  void serve(const Request& request, const Reply& reply, std::string* image) {
    std::unique_lock<std::mutex> lock(mutex);
    log += (log.empty() ? "" : "; ") + request.what;
    lock.unlock();
    bool refused = request.image_size > 0 && reply.kind == kFailure;
    std::string bytes;
    char buffer[65536];
    while (!refused && bytes.size() < uint64_t(request.image_size)) {
      uint64_t count = std::min<uint64_t>(sizeof buffer, uint64_t(request.image_size) - bytes.size());
      if (!socket_is_alive(&connection) || socket_raw_recv(&connection, buffer, &count) != 0) break;
      bytes.append(buffer, count);
    }
    if (image != nullptr && request.image_size > 0) *image = bytes;
    send_reply(&connection, reply);
    if (refused || reply.kind == kNothing) usleep(1000000);
    if (reply.kind != kUpgrade) return;
    // Plain recv: socket_raw_recv closes the socket at the end of the input.
    std::string input;
    for (ssize_t got; (got = recv(connection.descriptor, buffer, sizeof buffer, 0)) > 0;)
      input.append(buffer, size_t(got));
    std::string said = "got " + std::to_string(input.size()) + ": " + input;
    send(connection.descriptor, said.data(), said.size(), MSG_NOSIGNAL);
  }

  socket_record listener{0, 0, nullptr, -1, ~uint64_t{0}, nullptr, nullptr};
  socket_record connection{0, 0, nullptr, -1, ~uint64_t{0}, nullptr, nullptr};
  uint16_t port = 0;  // 0 when it could not listen
  std::mutex mutex;
  std::string log;
  std::thread thread;
};

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

// The exit status (-1 when the alarm ended it) and what was written.
struct Outcome {
  int status = -1;
  std::string out, err;
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
  pid_t pid = fork();
  if (pid == 0) {
    alarm(20);  // a hanging client fails its test instead of the whole run
    for (int fd = 0; fd < 3; ++fd)  // dup2 clears close-on-exec on the copies
      if (dup2(files[fd], fd) < 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  Outcome result;
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  char buffer[4096];
  std::string* streams[3] = {nullptr, &result.out, &result.err};
  for (int fd = 1; fd < 3; ++fd) {
    // A file is read from the start; the few lines put on a terminal wait on its master side.
    pollfd entry{fd == setup.terminal ? master : files[fd], POLLIN, 0};
    lseek(entry.fd, 0, SEEK_SET);
    for (ssize_t got; poll(&entry, 1, 100) > 0 && (got = read(entry.fd, buffer, sizeof buffer)) > 0;)
      streams[fd]->append(buffer, size_t(got));
  }
  for (int fd : {files[0], files[1], files[2], master}) close(fd);
  return result;
}

// One run against a fake daemon giving `replies`, whose address is in
// APPSRV_ADDRESS unless `setup` sets it. In `arguments` ADDRESS stands for the
// daemon's address, IMAGE for a small file and BIG for one of 16 MiB, larger
// than the socket buffers; an image the daemon reads must arrive unchanged.
struct Scenario {
  std::vector<Reply> replies;
  std::vector<std::string> arguments;
  Setup setup;
  int status;
  std::string out, err;  // in `err` "@" stands for "appsrvctl: ADDRESS: "
  std::string requests;  // what reached the daemon
};

void check(const std::vector<Scenario>& scenarios) {
  for (const Scenario& s : scenarios) {
    std::string contents(s.arguments.back() == "BIG" ? 16u << 20 : 16u, '\0'), received;
    for (size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>((i * 2654435761u) >> 13);
    TempFile image(contents);
    FakeDaemon daemon(s.replies, &received);
    ASSERT_NE(daemon.port, 0);
    std::vector<std::string> arguments;
    for (const std::string& word : s.arguments)
      arguments.push_back(word == "ADDRESS" ? daemon.address() : word == "IMAGE" || word == "BIG" ? image.path : word);
    Setup setup = s.setup;
    setup.variables.insert(setup.variables.begin(), {"APPSRV_ADDRESS", daemon.address()});
    SCOPED_TRACE(arguments[0] + " " + (arguments.size() > 1 ? arguments[1] : ""));
    Outcome result = run(arguments, setup);
    std::string err;
    for (char c : s.err) err += c == '@' ? "appsrvctl: " + daemon.address() + ": " : std::string(1, c);
    EXPECT_EQ(result.status, s.status) << result.err;
    EXPECT_EQ(result.out, s.out);
    EXPECT_EQ(result.err, err);
    EXPECT_EQ(daemon.requests(), s.requests);
    EXPECT_TRUE(received.empty() || received == contents) << "received " << received.size() << " bytes";
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

TEST(Appsrvctl, OutcomesEndWithTheirStatusAndForceForgivesAnUnknownName) {
  check({
      {{{kEmpty}}, {"delete"}, {}, 2, "",
       "appsrvctl: missing arguments for delete\nusage: appsrvctl delete [--force] NAME\n", ""},
      {{{kFailure, {"unknown name"}}}, {"delete", "gone"}, {}, 3, "", "@delete 'gone': unknown name\n", "delete gone"},
      {{{kFailure, {"unknown name"}}}, {"rm", "--force", "gone"}, {}, 0, "", "@delete 'gone': already gone\n",
       "delete gone"},
      {{{kEmpty}}, {"delete", "app"}, {}, 0, "", "@delete 'app': deleted\n", "delete app"},
      {{{kEmpty}}, {"delete", "tab\there"}, {}, 1, "", "appsrvctl: delete 'tab\\x09here': invalid name\n", ""},
      {{{kFailure, {"spawn child"}}}, {"select", "x"}, {}, 1, "", "@select 'x': spawn child\n", "select x"},
      {{{kFailure, {"duplicate name"}}}, {"rename", "dup", "b"}, {}, 4, "", "@rename 'dup' to 'b': duplicate name\n",
       "rename dup b"},
      {{{kEmpty}}, {"rename", "ok", std::string(1024, 'n')}, {}, 1, "",
       "appsrvctl: rename 'ok' to '" + std::string(1024, 'n') + "': invalid new name\n", ""},
      // The renamed stack takes the connection over; nothing is sent to it.
      {{{kUpgrade}}, {"rename", "old", "new"}, {"must not be sent\n"}, 0, "", "@rename 'old' to 'new': renamed\n",
       "rename old new"},
  });
  Outcome help = run({"rm", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: appsrvctl delete [--force] NAME\n", 0), 0u) << help.out;
}

TEST(Appsrvctl, UploadChecksTheNameFirstThenStreamsTheImageAndTakesAnEarlyRefusal) {
  check({
      {{{kEmpty}}, {"upload", "a\nb", "IMAGE"}, {}, 1, "", "appsrvctl: upload 'a\\x0ab': invalid name\n", ""},
      {{{kEmpty}}, {"upload", "app", "/"}, {}, 1, "", "appsrvctl: upload 'app': cannot pack '/': no appsrv.toml at its top\n",
       ""},
      {{{kNames, {"app", "other"}}}, {"upload", "app", "IMAGE"}, {}, 4, "", "@upload 'app': duplicate name\n", "list"},
      {{{kNames, {"other"}}, {kEmpty}}, {"upload", "app", "BIG"}, {}, 0, "", "@upload 'app': deployed (16.0 MiB)\n",
       "list; upload app"},
      // Refused while the image is still going out.
      {{{kNames, {}}, {kFailure, {"image too large"}}}, {"upload", "big", "BIG"}, {}, 1, "",
       "@upload 'big': image too large\n", "list; upload big"},
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
  // Every other scenario finds the daemon through the environment.
  check({{{{kNames, {"only"}}}, {"ls", "--address", "ADDRESS"}, {"", 0, {{"APPSRV_ADDRESS", "127.0.0.1:1"}}}, 0,
          "only\n", "", "list"}});
  FakeDaemon six({{kNames, {"six"}}}, nullptr, "::1");
  if (six.port == 0) GTEST_SKIP() << "no IPv6 loopback here";
  EXPECT_EQ(run({"--address", "[::1]:" + std::to_string(six.port), "ls"}).out, "six\n");
}

TEST(Appsrvctl, UploadShowsProgressOnlyOnATerminalWithoutNoColor) {
  TempFile image(std::string(3u << 20, 'p'));
  FakeDaemon daemon({{kNames, {}}, {kEmpty}});
  ASSERT_NE(daemon.port, 0);
  std::vector<std::string> upload = {"--address", daemon.address(), "upload", "app", image.path};
  Outcome shown = run(upload, {"", 2, {{"TERM", "xterm"}}});
  Outcome plain = run(upload, {"", 2, {{"NO_COLOR", "1"}}});
  // Redrawn in place up to the full bar, which ends its line before the report.
  EXPECT_TRUE(std::regex_match(shown.err, std::regex(R"((\r  [^\r\n]*)*\r  3\.0 MiB / 3\.0 MiB  100%[^\r\n]*\r\n)"
                                                     R"(appsrvctl: [^\r\n]*deployed \(3\.0 MiB\)\r\n)")))
      << shown.err;
  EXPECT_EQ(plain.err, "appsrvctl: " + daemon.address() + ": upload 'app': deployed (3.0 MiB)\r\n");
  EXPECT_EQ(shown.status + plain.status, 0);
}

TEST(Appsrvctl, UnreachableOrSilentDaemonsEndWithStatusFiveWithinTheTimeout) {
  check({{{{kNothing}}, {"--timeout", "0.2", "ls"}, {}, 5, "", "@list: timed out after 0.2 s waiting for a reply\n",
          "list"}});
  std::string gone = FakeDaemon({Reply(kEmpty)}).address();
  Outcome refused = run({"--address", gone, "ls"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_EQ(refused.err, "appsrvctl: " + gone + ": list: cannot connect: Connection refused\n"
                         "appsrvctl: hint: no daemon is listening there; start one with tools/run-daemon.sh (or "
                         "systemctl start appsrv), or give the address of a running one with --address\n");

  // A listener with a full queue drops further connection attempts, so
  // connect would wait for the kernel's retries.
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  ASSERT_TRUE(bind(listener, raw, length) == 0 && listen(listener, 0) == 0 && getsockname(listener, raw, &length) == 0);
  int fillers[2];
  for (int& filler : fillers)
    connect(filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), raw, length);
  usleep(50000);
  std::string target = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  int64_t started = runtime_getclock();
  Outcome full = run({"--timeout", "0.5", "--address", target, "ls"});
  for (int fd : {fillers[0], fillers[1], listener}) close(fd);
  EXPECT_EQ(full.status, 5);
  EXPECT_EQ(full.err, "appsrvctl: " + target + ": list: timed out connecting after 0.5 s\n");
  EXPECT_LT(runtime_getclock() - started, 1500);
}

}  // namespace

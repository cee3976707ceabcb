// The built appsrvctl against a fake daemon: a loopback listener that reads
// each request frame with the socket family, parses it with the request
// module and answers as the test says, in the reply layout.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/runtime.h"
#include "base/socket.h"
#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "tests/support/ctl.h"
#include "tests/support/message_testing.h"
#include "tests/support/scratch_dir.h"

using e2e::appsrvctl;
using e2e::Outcome;

namespace {

#define REQ(name) image___appsrv_protocol_request___##name
#define REP(name) image___appsrv_protocol_reply___##name

// What reached the daemon ("list", "delete NAME", "rename OLD NEW", ...),
// with the size of an upload's image.
std::pair<std::string, int64_t> parse_request(const socket_message& message) {
  TestArena arena;
  auto* root = REQ(root_t___allocate_f)(arena);
  std::string bytes(static_cast<const char*>(message.data), message.size);
  int parsed = parse_with(&REQ(parse_bin_f), arena, root, bytes);
  EXPECT_EQ(parsed, 0) << (root->failure_reason != nullptr ? root->failure_reason : "");
  auto text = [](const message_text& field) { return " " + std::string(field.text, field.length); };
  void* payload = root->type.payload;
  uint32_t tag = parsed == 0 && root->type.set ? root->type.tag : ~0u;
  if (tag == REQ(root_t___type___tag___delete))
    return {"delete" + text(static_cast<REQ(root___type___delete_t)*>(payload)->stack_name), 0};
  if (tag == REQ(root_t___type___tag___select))
    return {"select" + text(static_cast<REQ(root___type___select_t)*>(payload)->stack_name), 0};
  if (auto* rename = static_cast<REQ(root___type___rename_t)*>(payload); tag == REQ(root_t___type___tag___rename))
    return {"rename" + text(rename->old_name) + text(rename->new_name), 0};
  if (auto* upload = static_cast<REQ(root___type___upload_t)*>(payload); tag == REQ(root_t___type___tag___upload))
    return {"upload" + text(upload->stack_name), upload->image_size.value};
  return {tag == REQ(root_t___type___tag___list) ? "list" : "?", 0};
}

// Replies as the daemon frames them: the fingerprint, the status, then what
// the status holds. An empty reply is none at all.
using Reply = std::string;
const uint32_t kSuccess = REP(root_t___status___tag___success);
const Reply kFailed = Wire().u32(REP(root_t___status___tag___failure)).str(), kNone = "",
            kDone = Wire().u32(kSuccess).u32(REP(root___status___success_t___type___tag___empty)).str(),
            kUpgrade = Wire().u32(REP(root_t___status___tag___upgrade)).str();
Reply failure(const std::string& reason) { return Wire().u32(REP(root_t___status___tag___failure)).text(reason).str(); }
Reply names(const std::vector<std::string>& names) {  // in ascending order
  Wire wire;
  wire.u32(kSuccess).u32(REP(root___status___success_t___type___tag___data)).u32(static_cast<uint32_t>(names.size()));
  for (const std::string& name : names) wire.text(name);
  return wire.str();
}

// Serves connections one at a time, as the daemon does, until destroyed. The
// n-th request gets replies[n], the last one from then on; the requests are
// noted in `log`, "; " between them. An upload's image is read (into `image`)
// unless the reply refuses it. A daemon that leaves the image unread or does
// not answer closes a second later (the close then resets the client's side).
struct FakeDaemon {
  explicit FakeDaemon(std::vector<Reply> replies, std::string* log = nullptr, std::string* image = nullptr,
                      const char* host = "127.0.0.1") {
    socket_address address{};
    if (socket_address_tcp(host, "0", &address) != 0 || socket_open(&address, 4, 1, &listener) != 0) return;
    port = e2e::port_of(listener.descriptor);
    thread = std::thread([this, replies, log, image] {
      socket_message message{};
      for (size_t n = 0; socket_accept(&listener, 0, &connection) == 0; socket_close(&connection))
        if (socket_msg_recv(&connection, nullptr, &message) == 0 && message.size > 0)
          serve(parse_request(message), replies[std::min(n++, replies.size() - 1)], log, image);
    });
  }
  ~FakeDaemon() {
    shutdown(listener.descriptor, SHUT_RDWR);  // ends the accept
    if (thread.joinable()) thread.join();
    socket_close(&listener);
  }
  std::string address() const { return "127.0.0.1:" + std::to_string(port); }

  void serve(const std::pair<std::string, int64_t>& request, const Reply& reply, std::string* log, std::string* image) {
    if (log != nullptr) *log += (log->empty() ? "" : "; ") + request.first;
    bool refused = request.second > 0 && reply.starts_with(kFailed);
    std::string bytes(refused ? 0 : static_cast<size_t>(request.second), '\0');
    ssize_t got = bytes.empty() ? 0 : recv(connection.descriptor, bytes.data(), bytes.size(), MSG_WAITALL);
    if (image != nullptr && request.second > 0) *image = bytes.substr(0, got > 0 ? size_t(got) : 0);
    socket_message message{reply.data(), reply.size()};
    EXPECT_TRUE(reply.empty() || socket_msg_send(&connection, nullptr, &message) == 0) << socket_strerror(&connection);
    if (refused || reply.empty()) usleep(1000000);
  }

  socket_record listener{0, 0, nullptr, -1, ~uint64_t{0}, nullptr, nullptr};
  socket_record connection{0, 0, nullptr, -1, ~uint64_t{0}, nullptr, nullptr};
  uint16_t port = 0;  // 0 when it could not listen
  std::thread thread;
};

// One run against a fake daemon giving `replies`, found through
// APPSRV_ADDRESS. IMAGE names a small file and BIG one of 16 MiB, larger than
// the socket buffers; an image the daemon reads must arrive unchanged.
struct Scenario {
  std::vector<Reply> replies;
  std::vector<std::string> arguments;
  int status;
  std::string err;  // "@" stands for "appsrvctl: ADDRESS: "
  std::string requests;  // what reached the daemon
  std::string out = "";
  e2e::Invocation setup = {};
};

class Appsrvctl : public InScratchDir {
 protected:
  void check(const std::vector<Scenario>& scenarios) {
    write_file("IMAGE", e2e::patterned_image(16));
    write_file("BIG", e2e::patterned_image(16u << 20));
    for (const Scenario& s : scenarios) {
      SCOPED_TRACE(s.arguments[0] + " " + (s.arguments.size() > 1 ? s.arguments[1] : ""));
      std::string requests, received, address;
      Outcome result;
      {
        FakeDaemon daemon(s.replies, &requests, &received);
        ASSERT_NE(daemon.port, 0);
        e2e::Invocation setup = s.setup;
        setup.variables.insert(setup.variables.begin(), {"APPSRV_ADDRESS", address = daemon.address()});
        result = appsrvctl(s.arguments, setup);
      }  // the daemon's thread has ended
      EXPECT_EQ(result.status, s.status) << result.err;
      EXPECT_EQ(result.out, s.out);
      EXPECT_EQ(result.err, std::regex_replace(s.err, std::regex("@"), "appsrvctl: " + address + ": "));
      EXPECT_EQ(requests, s.requests);
      EXPECT_TRUE(received.empty() || received == read_file(s.arguments.back())) << received.size() << " bytes";
    }
  }
};

TEST_F(Appsrvctl, ListPrintsNamesAsTheyAreToAPipeEscapedOnATerminalOrAsJson) {
  check({
      {{names({"alpha", "beta", "esc\x1b[0m"})}, {"ls"}, 0, "", "list", "alpha\nbeta\nesc\x1b[0m\n"},
      {{names({"alpha", "esc\x1b[0m\\"})}, {"list"}, 0, "", "list", "alpha\r\nesc\\x1b[0m\\\\\r\n", {"", 1}},
      {{names({"a\"b", "c\\d", "e\x01" "f"})}, {"list", "--json"}, 0, "", "list", R"(["a\"b","c\\d","e\u0001f"])" "\n"},
      {{names({})}, {"list", "--json"}, 0, "", "list", "[]\n"},
  });
}

TEST_F(Appsrvctl, OutcomesEndWithTheirStatusAndForceForgivesAnUnknownName) {
  check({
      {{kDone}, {"delete"}, 2, "appsrvctl: missing arguments for delete\nusage: appsrvctl delete [--force] NAME\n", ""},
      {{failure("unknown name")}, {"delete", "gone"}, 3, "@delete 'gone': unknown name\n", "delete gone"},
      {{failure("unknown name")}, {"rm", "--force", "gone"}, 0, "@delete 'gone': already gone\n", "delete gone"},
      {{kDone}, {"delete", "app"}, 0, "@delete 'app': deleted\n", "delete app"},
      {{kDone}, {"delete", "tab\there"}, 1, "appsrvctl: delete 'tab\\x09here': invalid name\n", ""},
      {{failure("duplicate name")}, {"rename", "a", "b"}, 4, "@rename 'a' to 'b': duplicate name\n", "rename a b"},
      {{kDone}, {"rename", "ok", std::string(1024, 'n')}, 1,
       "appsrvctl: rename 'ok' to '" + std::string(1024, 'n') + "': invalid new name\n", ""},
      // The renamed stack takes the connection over; nothing is sent to it.
      {{kUpgrade}, {"rename", "old", "new"}, 0, "@rename 'old' to 'new': renamed\n", "rename old new", "",
       {"must not be sent\n"}},
  });
  Outcome help = appsrvctl({"rm", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: appsrvctl delete [--force] NAME\n", 0), 0u) << help.out;
}

TEST_F(Appsrvctl, UploadChecksTheNameFirstThenStreamsTheImageAndTakesAnEarlyRefusal) {
  check({
      {{kDone}, {"upload", "a\nb", "IMAGE"}, 1, "appsrvctl: upload 'a\\x0ab': invalid name\n", ""},
      {{kDone}, {"upload", "app", "/"}, 1, "appsrvctl: upload 'app': cannot pack '/': no appsrv.toml at its top\n", ""},
      {{names({"app", "other"})}, {"upload", "app", "IMAGE"}, 4, "@upload 'app': duplicate name\n", "list"},
      {{names({"b"}), kDone}, {"upload", "app", "BIG"}, 0, "@upload 'app': deployed (16.0 MiB)\n", "list; upload app"},
      // Refused while the image is still going out.
      {{names({}), failure("image too large")}, {"upload", "big", "BIG"}, 1, "@upload 'big': image too large\n",
       "list; upload big"},
      {{names({}), kNone}, {"upload", "app", "IMAGE"}, 5, "@upload 'app': connection closed without a reply\n",
       "list; upload app"},
  });
}

TEST_F(Appsrvctl, SelectAsksOnceMoreWhileTheStackIsResurrected) {
  const Reply resurrecting = failure("resurrecting dead stack");
  const std::string again = "@select 'app': resurrecting dead stack, asking again\n", twice = "select app; select app";
  check({
      {{resurrecting, kUpgrade}, {"select", "app"}, 0, again, twice},
      {{resurrecting}, {"select", "app"}, 1, again + "@select 'app': resurrecting dead stack\n", twice},
  });
}

TEST_F(Appsrvctl, AnIpv6AddressIsReachedInBrackets) {
  FakeDaemon six({names({"six"})}, nullptr, nullptr, "::1");
  if (six.port == 0) GTEST_SKIP() << "no IPv6 loopback here";
  EXPECT_EQ(appsrvctl({"--address", "[::1]:" + std::to_string(six.port), "ls"}).out, "six\n");
}

TEST_F(Appsrvctl, UploadShowsProgressOnlyOnATerminalWithoutNoColor) {
  write_file("image", std::string(3u << 20, 'p'));
  FakeDaemon daemon({names({}), kDone});
  ASSERT_NE(daemon.port, 0);
  std::vector<std::string> upload = {"--address", daemon.address(), "upload", "app", "image"};
  Outcome shown = appsrvctl(upload, {"", 2, {{"TERM", "xterm"}}});
  Outcome plain = appsrvctl(upload, {"", 2, {{"NO_COLOR", "1"}}});
  // Redrawn in place up to the full bar, which ends its line before the report.
  EXPECT_TRUE(std::regex_match(shown.err, std::regex(R"((\r  [^\r\n]*)*\r  3\.0 MiB / 3\.0 MiB  100%[^\r\n]*\r\n)"
                                                     R"(appsrvctl: [^\r\n]*deployed \(3\.0 MiB\)\r\n)")))
      << shown.err;
  EXPECT_EQ(plain.err, "appsrvctl: " + daemon.address() + ": upload 'app': deployed (3.0 MiB)\r\n");
  EXPECT_EQ(shown.status + plain.status, 0);
}

TEST_F(Appsrvctl, UnreachableOrSilentDaemonsEndWithStatusFiveWithinTheTimeout) {
  check({{{kNone}, {"--timeout", "0.2", "ls"}, 5, "@list: timed out after 0.2 s waiting for a reply\n", "list"}});
  std::string gone = FakeDaemon({kDone}).address();
  Outcome refused = appsrvctl({"--address", gone, "ls"});
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
  Outcome full = appsrvctl({"--timeout", "0.5", "--address", target, "ls"});
  for (int fd : {fillers[0], fillers[1], listener}) close(fd);
  EXPECT_EQ(full.status, 5);
  EXPECT_EQ(full.err, "appsrvctl: " + target + ": list: timed out connecting after 0.5 s\n");
  EXPECT_LT(runtime_getclock() - started, 1500);
}

}  // namespace

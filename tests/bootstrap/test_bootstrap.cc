// A bootstrap program for the tests: started by the daemon for every stack,
// it records what it sees and behaves as the test asks.
//
// Arguments: stack path, name, runenv root, store path, "--" [, "--deploy" fd].
// Behaviour comes from "<runenv>/test-control/<name>" (or ".../default"), one
// directive per line:
//   marker                create the deployed marker at start
//   exit N / signal N     end at once with that status / by that signal
//   ignore-term           survive SIGTERM
//   ignore-shutdown       stay after a shutdown message
//   shutdown-exit N       exit status after a shutdown message (default 0)
//   grandchild            leave a child in the group that sleeps forever
//   grandchild-ignore-term  the same, ignoring SIGTERM
//   no-bind               never bind os-worker
//   count-peers           log "peers N" at start: how many earlier instances
//                         of this stack or their grandchildren still live
// Everything it sees goes to "<runenv>/test-log/<key>.log", one line per
// event: "start pid=N pgid=N", "args A|B|...", "fds 0 1 2 ...", "grandchild
// N", "ready" once os-worker is bound, then each control message by its kind
// ("set_name <name>", "shutdown", "sockpass"), with " fd" when a descriptor
// came along.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/bigendian.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"

namespace {

std::string log_path, current_name;

// Opened and closed for every line, so no descriptor of it stays around.
void log_line(const std::string& line) { std::ofstream(log_path, std::ios::app) << line + "\n"; }

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

struct Behaviour {
  std::set<std::string> flags;  // the directives without a number
  int exit_code = -1, signal_number = 0, shutdown_exit = 0;
  bool has(const char* flag) const { return flags.count(flag) != 0; }
};

Behaviour read_behaviour(const std::string& runenv, const std::string& name) {
  Behaviour b;
  std::ifstream in(runenv + "/test-control/" + name);
  if (!in) in.open(runenv + "/test-control/default");
  for (std::string word; in >> word;) {
    if (word == "exit") in >> b.exit_code;
    else if (word == "signal") in >> b.signal_number;
    else if (word == "shutdown-exit") in >> b.shutdown_exit;
    else b.flags.insert(word);
  }
  return b;
}

// The open descriptors (below 4096: whatever a stack inherits is low-numbered).
std::string open_descriptors() {
  std::string list;
  for (int fd = 0; fd < 4096; ++fd)
    if (fcntl(fd, F_GETFD) >= 0) list += (list.empty() ? "" : " ") + std::to_string(fd);
  return list;
}

// Earlier instances of this stack and their grandchildren, as this log names
// them, that are still alive (not zombies).
int count_peers() {
  int count = 0;
  std::string log = read_file(log_path);
  for (std::string prefix : {"start pid=", "grandchild "})
    for (size_t at = log.find(prefix); at != std::string::npos; at = log.find(prefix, at + 1)) {
      int pid = atoi(log.c_str() + at + prefix.size());
      std::string stat = pid == getpid() ? "" : read_file("/proc/" + std::to_string(pid) + "/stat");
      size_t paren = stat.rfind(") ");
      count += paren != std::string::npos && stat.compare(paren + 2, 1, "Z") != 0;
    }
  return count;
}

void start_grandchild(bool ignore_term) {
  pid_t pid = fork();
  if (pid == 0) {
    // Only the group membership is left behind, not the stack's descriptors.
    close_range(3, ~0U, 0);
    signal(SIGTERM, ignore_term ? SIG_IGN : SIG_DFL);
    for (;;) pause();
  }
  log_line("grandchild " + std::to_string(pid));
}

void greet(int fd, const std::string& what) {
  std::string text = what + " " + current_name + "\n";
  (void)!write(fd, text.data(), text.size());
  close(fd);
}

// One control message: 64 fingerprint bytes, the tag, and for set_name the
// name. Read by hand rather than with the control module, so that the tests
// see what actually went over the wire.
void handle_datagram(const uint8_t* bytes, size_t size, int passed_fd, const Behaviour& b) {
  if (size < 68) return log_line("message short " + std::to_string(size));
  uint32_t tag = bigendian_load32(bytes + 64);
  std::string line;
  switch (tag) {
    case image___os_internal_protocol___root_t___type___tag___set_name:
      if (size >= 72)
        current_name = std::string(reinterpret_cast<const char*>(bytes), size).substr(72, bigendian_load32(bytes + 68));
      line = "set_name " + current_name;
      break;
    case image___os_internal_protocol___root_t___type___tag___shutdown: line = "shutdown"; break;
    case image___os_internal_protocol___root_t___type___tag___sockpass: line = "sockpass"; break;
    default: line = "message " + std::to_string(tag);
  }
  log_line(line + (passed_fd >= 0 ? " fd" : ""));
  if (passed_fd >= 0) greet(passed_fd, "hello");
  if (tag == image___os_internal_protocol___root_t___type___tag___shutdown && !b.has("ignore-shutdown"))
    exit(b.shutdown_exit);
}

void serve(int worker, const Behaviour& b) {
  for (;;) {
    uint8_t bytes[65536];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec vector{bytes, sizeof bytes};
    msghdr header{.msg_name = nullptr, .msg_namelen = 0, .msg_iov = &vector, .msg_iovlen = 1,
                  .msg_control = control, .msg_controllen = sizeof control, .msg_flags = 0};
    ssize_t got = recvmsg(worker, &header, MSG_CMSG_CLOEXEC);
    if (got < 0) {
      log_line(std::string("recv failed ") + strerror(errno));
      exit(3);
    }
    int passed = -1;
    cmsghdr* message = CMSG_FIRSTHDR(&header);
    if (message != nullptr && message->cmsg_type == SCM_RIGHTS) memcpy(&passed, CMSG_DATA(message), sizeof passed);
    handle_datagram(bytes, static_cast<size_t>(got), passed, b);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) return 64;
  std::string stack_path = argv[1], runenv = argv[3], store_path = argv[4], args = argv[1];
  current_name = argv[2];
  mkdir((runenv + "/test-log").c_str(), 0755);
  log_path = runenv + "/test-log/" + stack_path.substr(stack_path.rfind('/') + 1) + ".log";
  Behaviour b = read_behaviour(runenv, current_name);

  for (int i = 2; i < argc; ++i) args += std::string("|") + argv[i];
  log_line("start pid=" + std::to_string(getpid()) + " pgid=" + std::to_string(getpgid(0)));
  log_line("args " + args);
  log_line("fds " + open_descriptors());
  if (b.has("count-peers")) log_line("peers " + std::to_string(count_peers()));

  if (b.has("ignore-term")) signal(SIGTERM, SIG_IGN);
  if (b.has("grandchild") || b.has("grandchild-ignore-term")) start_grandchild(b.has("grandchild-ignore-term"));
  if (b.has("marker")) close(open((store_path + "/serv/deployed").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  if (b.signal_number != 0) raise(b.signal_number);
  if (b.exit_code >= 0) return b.exit_code;
  if (argc >= 8 && std::string(argv[6]) == "--deploy") greet(atoi(argv[7]), "deployed");
  if (b.has("no-bind")) {
    for (;;) pause();
  }

  int worker = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  snprintf(address.sun_path, sizeof address.sun_path, "%s/os-worker", stack_path.c_str());
  unlink(address.sun_path);
  if (bind(worker, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    log_line(std::string("bind failed ") + strerror(errno));
    return 4;
  }
  log_line("ready");
  serve(worker, b);
}

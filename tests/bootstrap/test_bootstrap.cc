// A bootstrap program for the tests: started by the daemon for every stack,
// it records what it sees and behaves as the test asks.
//
// Arguments: stack path, name, runenv root, store path, "--" [, "--deploy" fd].
// Behaviour comes from "<runenv>/test-control/<name>" (or ".../default"), one
// directive per line:
//   marker                create the deployed marker at start
//   exit N / signal N     end at once with that status / by that signal
//   ignore-term           survive SIGTERM (logged as "term")
//   ignore-shutdown       stay after a shutdown message
//   shutdown-exit N       exit status after a shutdown message (default 0)
//   grandchild            leave a child in the group that sleeps forever
//   grandchild-ignore-term  the same, ignoring SIGTERM
//   no-bind               never bind os-worker
//   count-peers           log "peers N": how many other live processes run
//                         this stack (same stack path argument) at start
// Everything it sees goes to "<runenv>/test-log/<key>.log", one line per event.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "base/bigendian.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"

namespace {

std::string log_path;
std::string current_name;

void log_line(const std::string& line) {
  int fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string text = line + "\n";
  (void)!write(fd, text.data(), text.size());
  close(fd);
}

volatile sig_atomic_t terms_seen = 0;
void on_term(int) { terms_seen = terms_seen + 1; }

struct Behaviour {
  bool marker = false, ignore_term = false, ignore_shutdown = false, no_bind = false, count_peers = false;
  int exit_code = -1, signal_number = 0, shutdown_exit = 0;
  int grandchild = 0;  // 1 plain, 2 ignoring SIGTERM
};

Behaviour read_behaviour(const std::string& runenv, const std::string& name) {
  Behaviour b;
  FILE* f = fopen((runenv + "/test-control/" + name).c_str(), "r");
  if (f == nullptr) f = fopen((runenv + "/test-control/default").c_str(), "r");
  if (f == nullptr) return b;
  char word[64];
  int value;
  while (fscanf(f, "%63s", word) == 1) {
    std::string w = word;
    if (w == "marker") b.marker = true;
    else if (w == "ignore-term") b.ignore_term = true;
    else if (w == "ignore-shutdown") b.ignore_shutdown = true;
    else if (w == "no-bind") b.no_bind = true;
    else if (w == "count-peers") b.count_peers = true;
    else if (w == "grandchild") b.grandchild = 1;
    else if (w == "grandchild-ignore-term") b.grandchild = 2;
    else if (w == "exit" && fscanf(f, "%d", &value) == 1) b.exit_code = value;
    else if (w == "signal" && fscanf(f, "%d", &value) == 1) b.signal_number = value;
    else if (w == "shutdown-exit" && fscanf(f, "%d", &value) == 1) b.shutdown_exit = value;
  }
  fclose(f);
  return b;
}

std::string open_descriptors() {
  std::string list;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return "?";
  int own = dirfd(dir);
  std::vector<int> fds;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    int fd = atoi(entry->d_name);
    if (fd != own) fds.push_back(fd);
  }
  closedir(dir);
  for (size_t i = 0; i < fds.size(); ++i) list += (i ? " " : "") + std::to_string(fds[i]);
  return list;
}

// Live (not zombie) processes other than this one whose first argument is
// `stack_path`: earlier instances of the same stack that are still around.
int count_peers(const std::string& stack_path) {
  int count = 0;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return -1;
  while (dirent* entry = readdir(proc)) {
    int pid = atoi(entry->d_name);
    if (pid <= 0 || pid == getpid()) continue;
    std::string base = std::string("/proc/") + entry->d_name;
    FILE* f = fopen((base + "/cmdline").c_str(), "re");
    if (f == nullptr) continue;
    char text[4096];
    size_t got = fread(text, 1, sizeof text - 1, f);
    fclose(f);
    text[got] = '\0';
    size_t first = strnlen(text, got);
    if (first + 1 >= got || stack_path != text + first + 1) continue;
    f = fopen((base + "/stat").c_str(), "re");
    if (f == nullptr) continue;
    got = fread(text, 1, sizeof text - 1, f);
    fclose(f);
    text[got] = '\0';
    const char* paren = strrchr(text, ')');
    if (paren != nullptr && paren[1] == ' ' && paren[2] != 'Z') ++count;
  }
  closedir(proc);
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
bool handle_datagram(const uint8_t* bytes, ssize_t size, int passed_fd, const Behaviour& b) {
  if (size < 68) {
    log_line("message short " + std::to_string(size));
    return true;
  }
  uint32_t tag = bigendian_load32(bytes + 64);
  std::string line = "message " + std::to_string(tag);
  if (tag == image___os_internal_protocol___root_t___type___tag___set_name && size >= 72) {
    uint32_t length = bigendian_load32(bytes + 68);
    current_name.assign(reinterpret_cast<const char*>(bytes + 72), length);
    line += " " + current_name;
  }
  if (passed_fd >= 0) line += " fd";
  log_line(line);
  if (passed_fd >= 0) greet(passed_fd, "hello");
  if (tag == image___os_internal_protocol___root_t___type___tag___shutdown && !b.ignore_shutdown) {
    log_line("shutdown-exit");
    exit(b.shutdown_exit);
  }
  return true;
}

void serve(int worker, const Behaviour& b) {
  for (;;) {
    uint8_t bytes[65536];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec vector{bytes, sizeof bytes};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t got = recvmsg(worker, &header, MSG_CMSG_CLOEXEC);
    if (got < 0) {
      if (errno == EINTR) {
        if (terms_seen) log_line("term");
        terms_seen = 0;
        continue;
      }
      log_line(std::string("recv failed ") + strerror(errno));
      exit(3);
    }
    int passed = -1;
    cmsghdr* message = CMSG_FIRSTHDR(&header);
    if (message != nullptr && message->cmsg_type == SCM_RIGHTS) memcpy(&passed, CMSG_DATA(message), sizeof passed);
    handle_datagram(bytes, got, passed, b);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) return 64;
  std::string stack_path = argv[1], runenv = argv[3], store_path = argv[4];
  current_name = argv[2];
  std::string key = stack_path.substr(stack_path.rfind('/') + 1);
  mkdir((runenv + "/test-log").c_str(), 0755);
  log_path = runenv + "/test-log/" + key + ".log";
  Behaviour b = read_behaviour(runenv, current_name);

  std::string args;
  for (int i = 1; i < argc; ++i) args += std::string(i > 1 ? "|" : "") + argv[i];
  log_line("start pid=" + std::to_string(getpid()) + " pgid=" + std::to_string(getpgid(0)));
  log_line("args " + args);
  log_line("fds " + open_descriptors());

  if (b.count_peers) log_line("peers " + std::to_string(count_peers(stack_path)));

  struct sigaction action {};
  action.sa_handler = on_term;
  if (b.ignore_term) sigaction(SIGTERM, &action, nullptr);
  if (b.grandchild) start_grandchild(b.grandchild == 2);
  if (b.marker) close(open((store_path + "/serv/deployed").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  if (b.signal_number != 0) raise(b.signal_number);
  if (b.exit_code >= 0) return b.exit_code;

  if (argc >= 8 && std::string(argv[6]) == "--deploy") {
    int fd = atoi(argv[7]);
    log_line(std::string("deploy-fd ") + argv[7] + (fcntl(fd, F_GETFD) >= 0 ? " open" : " closed"));
    if (fcntl(fd, F_GETFD) >= 0) greet(fd, "deployed");
  }
  if (b.no_bind) {
    for (;;) pause();
  }
  int worker = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s/os-worker", stack_path.c_str());
  unlink(address.sun_path);
  if (bind(worker, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    log_line(std::string("bind failed ") + strerror(errno));
    return 4;
  }
  log_line("ready");
  serve(worker, b);
}

#include "tests/support/daemon.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>


namespace e2e {

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return in ? contents.str() : "<missing>";
}

void write_file(const std::string& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

Names entries(const std::string& directory) {
  Names names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

void make_tree(const std::string& path) { std::filesystem::create_directories(path); }

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

bool eventually(const std::function<bool()>& condition, int milliseconds) {
  for (int waited = 0; waited < milliseconds; waited += 10, usleep(10000))
    if (condition()) return true;
  return condition();
}

int64_t now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

uint16_t free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  uint16_t port = port_of(fd);
  close(fd);
  return port;
}

uint16_t port_of(int descriptor) {
  sockaddr_in6 name{};  // the port sits at the same offset for both families
  socklen_t length = sizeof name;
  getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &length);
  return ntohs(name.sin6_port);
}

bool process_gone(pid_t pid) {
  std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  return stat == "<missing>" || stat.substr(stat.rfind(')') + 2, 1) == "Z";
}

Daemon::Daemon(const char* bootstrap) {
  char pattern[] = "/tmp/appsrv-e2e-XXXXXX";
  if (mkdtemp(pattern) == nullptr) abort();
  dir_ = pattern;
  for (const char* directory : {"runenv/image", "runenv/test-control", "data"}) make_tree(path(directory));
  if (symlink(bootstrap, path("runenv/image/application-server-bootstrap").c_str()) != 0) abort();
  behave("default", "marker");
}

Daemon::~Daemon() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  // Whatever stacks are left belong to process groups led by their own pids:
  // the jobs the daemon still had on record, and every start the test
  // bootstrap logged. A stack outlives a killed daemon on purpose.
  std::string cleanup = "for f in '" + dir_ + "'/private/job-*; do [ -f \"$f\" ] && kill -9 -${f##*/job-} 2>/dev/null; done; " +
                        "for f in '" + dir_ + "'/runenv/test-log/*.log; do [ -f \"$f\" ] && " +
                        "sed -n 's/^start pid=\\([0-9]*\\).*/\\1/p' \"$f\" | while read p; do kill -9 -$p 2>/dev/null; done; " +
                        "done; rm -rf '" + dir_ + "'";
  if (system(cleanup.c_str()) != 0) fprintf(stderr, "cleanup of %s failed\n", dir_.c_str());
}

bool Daemon::start() {
  port_ = free_port();
  return start_with("127.0.0.1", std::to_string(port_));
}

bool Daemon::reaped() {
  int status;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
  pid_ = -1;
  exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return true;
}

bool Daemon::start_with(const std::string& host, const std::string& port) {
  pid_ = fork();
  if (pid_ == 0) {
    if (chdir(dir_.c_str()) != 0) _exit(127);
    dup2(open("appsrv.out", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 1);
    dup2(open("appsrv.err", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 2);
    execl(binary_.c_str(), binary_.c_str(), host.c_str(), port.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  // The probe closes without a request; the daemon drops it silently.
  return eventually([&] { return reaped() || Connection(port_).connected(); }, start_wait_) && pid_ > 0;
}

int Daemon::wait_exit(int milliseconds) {
  return eventually([&] { return reaped(); }, milliseconds) ? exit_status_ : -1;
}

void Daemon::signal(int signal_number) {
  if (pid_ > 0) kill(pid_, signal_number);  // never -1: that would reach every process
}

void Daemon::behave(const std::string& name, const std::string& directives) {
  write_file(path("runenv/test-control/" + name), directives);
}

std::string Daemon::key_of(const std::string& name) {
  for (const std::string& key : entries(path("data")))
    if (key[0] != '.' && read_file(path("data/" + key + "/serv/name")) == name) return key;
  return "";
}

std::string Daemon::log_of_stack(const std::string& name) {
  return read_file(path("runenv/test-log/" + key_of(name) + ".log"));
}

bool Daemon::wait_ready(const std::string& name) {
  return eventually([&] { return contains(log_of_stack(name), "ready"); });
}

std::vector<pid_t> Daemon::starts_of(const std::string& name) {
  std::string log = log_of_stack(name);
  std::vector<pid_t> pids;
  for (size_t at = log.find("start pid="); at != std::string::npos; at = log.find("start pid=", at + 1))
    pids.push_back(atoi(log.c_str() + at + 10));
  return pids;
}

}  // namespace e2e

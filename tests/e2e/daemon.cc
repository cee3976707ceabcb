#include "tests/e2e/daemon.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/e2e/client.h"

namespace e2e {

std::string read_file(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  std::string contents;
  char chunk[65536];
  for (size_t got; (got = fread(chunk, 1, sizeof chunk, f)) > 0;) contents.append(chunk, got);
  fclose(f);
  return contents;
}

void write_file(const std::string& path, const std::string& contents) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return;
  fwrite(contents.data(), 1, contents.size(), f);
  fclose(f);
}

uint16_t free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

bool eventually(bool (*condition)(void*), void* context, int milliseconds) {
  for (int waited = 0; waited < milliseconds; waited += 10) {
    if (condition(context)) return true;
    usleep(10000);
  }
  return condition(context);
}

Daemon::Daemon(const char* bootstrap) {
  char pattern[] = "/tmp/appsrv-e2e-XXXXXX";
  if (mkdtemp(pattern) == nullptr) abort();
  dir_ = pattern;
  std::string setup = "mkdir -p '" + dir_ + "/runenv/image' '" + dir_ + "/runenv/test-control' '" + dir_ + "/data'";
  if (system(setup.c_str()) != 0) abort();
  if (symlink(bootstrap, path("runenv/image/application-server-bootstrap").c_str()) != 0) abort();
}

Daemon::~Daemon() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  // Whatever stacks are left belong to process groups led by their own pids.
  std::string cleanup = "for f in '" + dir_ + "'/runenv/test-log/*.log; do [ -f \"$f\" ] && " +
                        "sed -n 's/^start pid=\\([0-9]*\\).*/\\1/p' \"$f\" | while read p; do kill -9 -$p 2>/dev/null; done; " +
                        "done; rm -rf '" + dir_ + "'";
  if (system(cleanup.c_str()) != 0) fprintf(stderr, "cleanup of %s failed\n", dir_.c_str());
}

bool Daemon::start() {
  port_ = free_port();
  return start_with("127.0.0.1", std::to_string(port_));
}

bool Daemon::start_with(const std::string& host, const std::string& port) {
  pid_ = fork();
  if (pid_ == 0) {
    if (chdir(dir_.c_str()) != 0) _exit(127);
    int out = open("appsrv.out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open("appsrv.err", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(err, 2);
    close(out);
    close(err);
    execl(APPSRV_BINARY, APPSRV_BINARY, host.c_str(), port.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int waited = 0; waited < start_wait_; waited += 10) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return false;
    }
    Connection probe(port_);
    if (probe.connected()) {
      // The probe closes without a request; the daemon drops it silently.
      return true;
    }
    usleep(10000);
  }
  return false;
}

int Daemon::wait_exit(int milliseconds) {
  for (int waited = 0; waited <= milliseconds; waited += 10) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return exit_status_;
    }
    usleep(10000);
  }
  return -1;
}

void Daemon::signal(int signal_number) { kill(pid_, signal_number); }

void Daemon::behave(const std::string& name, const std::string& directives) {
  write_file(path("runenv/test-control/" + name), directives);
}

std::string Daemon::key_of(const std::string& name) {
  DIR* data = opendir(path("data").c_str());
  if (data == nullptr) return "";
  std::string found;
  while (dirent* entry = readdir(data)) {
    if (entry->d_name[0] == '.') continue;
    if (read_file(path("data/") + entry->d_name + "/serv/name") == name) found = entry->d_name;
  }
  closedir(data);
  return found;
}

std::string Daemon::log_of_stack(const std::string& name) {
  return read_file(path("runenv/test-log/" + key_of(name) + ".log"));
}

}  // namespace e2e

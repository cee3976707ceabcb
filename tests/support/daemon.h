// The real appsrv binary run in a temporary working directory on a free
// loopback port, with the test bootstrap as every stack's program; the file,
// directory and waiting helpers every end-to-end and crash test shares; and
// (from client.h) the protocol client.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/client.h"

namespace e2e {

using Names = std::vector<std::string>;

std::string read_file(const std::string& path);  // "<missing>" when it cannot be read
void write_file(const std::string& path, const std::string& contents);
bool exists(const std::string& path);
Names entries(const std::string& directory);  // sorted, "." and ".." left out
void make_tree(const std::string& path);  // mkdir -p
bool contains(const std::string& text, const std::string& part);
// Polls `condition` every 10 ms for up to `milliseconds`.
bool eventually(const std::function<bool()>& condition, int milliseconds = 5000);
int64_t now_ms();
uint16_t free_port();
uint16_t port_of(int descriptor);
bool process_gone(pid_t pid);  // no such process, or a zombie  // the local port of a bound socket, IPv4 or IPv6

class Daemon {
 public:
  // Prepares runenv, with `bootstrap` as every stack's program, and data. The
  // test bootstrap's stacks complete their deployment ("marker") unless
  // behave() tells them otherwise.
  explicit Daemon(const char* bootstrap = TEST_BOOTSTRAP);
  ~Daemon();  // kills what is left and removes the directory

  // Starts appsrv (default: on 127.0.0.1 and a free port); false unless it
  // accepts connections within the start wait (5 s unless set).
  bool start();
  bool start_with(const std::string& host, const std::string& port);
  void set_start_wait(int milliseconds) { start_wait_ = milliseconds; }
  void set_binary(const std::string& path) { binary_ = path; }  // another build of appsrv
  int wait_exit(int milliseconds);  // the exit status, or -1 after `milliseconds`
  void signal(int signal_number);

  // Directives for the test bootstrap of the stack with this name.
  void behave(const std::string& name, const std::string& directives);
  std::string key_of(const std::string& name);  // from the name-tags on disk
  std::string log_of_stack(const std::string& name);  // by the name it was deployed with
  bool wait_ready(const std::string& name);  // the stack has bound its socket (up to 5 s)
  std::vector<pid_t> starts_of(const std::string& name);  // every "start pid=N" of its log
  std::string out() { return read_file(dir_ + "/appsrv.out"); }
  std::string err() { return read_file(dir_ + "/appsrv.err"); }
  std::string path(const std::string& relative) const { return dir_ + "/" + relative; }
  uint16_t port() const { return port_; }
  int exit_status() const { return exit_status_; }  // after start failed or wait_exit
  pid_t pid() const { return pid_; }

 private:
  bool reaped();
  std::string dir_;
  uint16_t port_ = 0;
  pid_t pid_ = -1;
  int exit_status_ = -1;
  int start_wait_ = 5000;
  std::string binary_ = APPSRV_BINARY;
};

}  // namespace e2e

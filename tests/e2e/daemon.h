// The real appsrv binary run in a temporary working directory on a free
// loopback port, with the test bootstrap as every stack's program.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace e2e {

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& contents);

class Daemon {
 public:
  // Prepares the working directory: runenv with `bootstrap` as every stack's
  // program, and data.
  explicit Daemon(const char* bootstrap = TEST_BOOTSTRAP);
  ~Daemon();  // kills what is left and removes the directory

  // Starts appsrv with these arguments (default: 127.0.0.1 and a free port)
  // and waits until it accepts connections. False when it did not come up.
  bool start();
  bool start_with(const std::string& host, const std::string& port);
  // How long start waits for the daemon to accept (default 5000 ms).
  void set_start_wait(int milliseconds) { start_wait_ = milliseconds; }
  // Waits for the daemon's exit; its status, or -1 after `milliseconds`.
  int wait_exit(int milliseconds);
  void signal(int signal_number);

  // Directives for the test bootstrap of the stack with this name.
  void behave(const std::string& name, const std::string& directives);
  std::string log_of_stack(const std::string& name);  // by the name it was deployed with
  std::string key_of(const std::string& name);  // from the name-tags on disk
  std::string out() { return read_file(dir_ + "/appsrv.out"); }
  std::string err() { return read_file(dir_ + "/appsrv.err"); }
  std::string path(const std::string& relative) const { return dir_ + "/" + relative; }
  uint16_t port() const { return port_; }
  int exit_status() const { return exit_status_; }  // after start failed or wait_exit
  pid_t pid() const { return pid_; }

 private:
  std::string dir_;
  uint16_t port_ = 0;
  pid_t pid_ = -1;
  int exit_status_ = -1;
  int start_wait_ = 5000;
};

uint16_t free_port();
// Polls `condition` every 10 ms for up to `milliseconds`.
bool eventually(bool (*condition)(void*), void* context, int milliseconds);

}  // namespace e2e

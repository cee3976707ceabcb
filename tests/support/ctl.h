// The built appsrvctl run as an operator runs it: with its own standard
// input and variables, on a pseudo-terminal where a test needs one, against
// a fake daemon or the real one.
#pragma once

#include <csignal>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "tests/support/daemon.h"

namespace e2e {

struct Outcome {
  int status = -1;  // -1 when it did not exit by itself (a signal, or its 30 s ran out)
  std::string out, err;
};

using Variables = std::vector<std::pair<std::string, std::string>>;

struct Invocation {
  std::string input;  // standard input (a pipe's worth), which ends at wait()
  int terminal = 0;  // 1 or 2: that stream is a pseudo-terminal (which shows "\n" as "\r\n")
  // Set after APPSRV_ADDRESS, APPSRV_SSH, APPSRV_WORKDIR, NO_COLOR and TERM
  // are taken out of the test's environment.
  Variables variables = {};
};

// appsrvctl started in the background; it is given 30 s.
class Ctl {
 public:
  explicit Ctl(const std::vector<std::string>& arguments, const Invocation& setup = {});
  ~Ctl();  // kills it when nobody waited for it
  Ctl(const Ctl&) = delete;
  Ctl& operator=(const Ctl&) = delete;
  std::string out() const { return read_stream(1); }  // so far (not from a terminal)
  void signal(int number) const {
    if (pid_ > 0) kill(pid_, number);  // never -1: that would reach every process
  }
  Outcome wait();

 private:
  std::string read_stream(int stream) const;
  pid_t pid_ = -1;
  int terminal_, master_ = -1, input_ = -1, files_[3] = {-1, -1, -1};
};

Outcome appsrvctl(const std::vector<std::string>& arguments, const Invocation& setup = {});
// The daemon's address and working directory in APPSRV_ADDRESS and
// APPSRV_WORKDIR, then `variables`.
Invocation reaching(const Daemon& daemon, const std::string& input = "", Variables variables = {});
Outcome appsrvctl(const Daemon& daemon, const std::vector<std::string>& arguments, const std::string& input = "",
                  const Variables& variables = {});

}  // namespace e2e

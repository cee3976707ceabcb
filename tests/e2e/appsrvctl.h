// appsrvctl run through the shell against a test daemon, for the tests that
// take the operator's path. Needs APPSRVCTL_BINARY.
#pragma once

#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "tests/e2e/daemon.h"

namespace e2e {

struct Outcome {
  int status = -1;
  std::string out, err;
};

// Runs appsrvctl against the daemon with `input` on its standard input.
inline Outcome appsrvctl(const Daemon& daemon, const std::vector<std::string>& arguments,
                         const std::string& input = "") {
  write_file(daemon.path("ctl.in"), input);
  std::string command = "APPSRV_ADDRESS=127.0.0.1:" + std::to_string(daemon.port()) + " timeout 30 " APPSRVCTL_BINARY;
  for (const std::string& argument : arguments) command += " '" + argument + "'";
  std::string files = daemon.path("ctl");
  int status = system((command + " <" + files + ".in >" + files + ".out 2>" + files + ".err").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(files + ".out"), read_file(files + ".err")};
}

}  // namespace e2e

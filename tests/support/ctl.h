// The built appsrvctl run through the shell against a test daemon, for the
// end-to-end tests of the operator's path.
#pragma once

#include <string>
#include <vector>

#include "tests/support/daemon.h"

namespace e2e {

struct Outcome {
  int status = -1;
  std::string out, err;
};

// Runs appsrvctl with the daemon's address and working directory in its
// environment (APPSRV_ADDRESS, APPSRV_WORKDIR), `variables` ("NAME=value
// ...", quoted for the shell) before it, and `input` on its standard input;
// it is given 30 s.
Outcome appsrvctl(const Daemon& daemon, const std::vector<std::string>& arguments, const std::string& input = "",
                  const std::string& variables = "");

// The word quoted for the shell, whatever bytes it holds.
std::string shell_quoted(const std::string& word);

}  // namespace e2e

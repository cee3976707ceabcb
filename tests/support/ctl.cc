#include "tests/support/ctl.h"

#include <cstdlib>
#include <sys/wait.h>

namespace e2e {

std::string shell_quoted(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

Outcome appsrvctl(const Daemon& daemon, const std::vector<std::string>& arguments, const std::string& input,
                  const std::string& variables) {
  write_file(daemon.path("ctl.in"), input);
  std::string command = "APPSRV_ADDRESS=127.0.0.1:" + std::to_string(daemon.port()) +
                        " APPSRV_WORKDIR=" + shell_quoted(daemon.path("")) + " " + variables + " timeout 30 " +
                        APPSRVCTL_BINARY;
  for (const std::string& argument : arguments) command += " " + shell_quoted(argument);
  std::string files = daemon.path("ctl");
  int status = system((command + " <" + files + ".in >" + files + ".out 2>" + files + ".err").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(files + ".out"), read_file(files + ".err")};
}

}  // namespace e2e

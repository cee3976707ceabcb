#include "tests/support/ctl.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace e2e {

Ctl::Ctl(const std::vector<std::string>& arguments, const Invocation& setup) : terminal_(setup.terminal) {
  // env clears and sets the variables, so the test's own stay as they are.
  std::vector<std::string> words = {"/usr/bin/env", "-u", "APPSRV_ADDRESS", "-u", "APPSRV_SSH", "-u",
                                    "APPSRV_WORKDIR", "-u", "NO_COLOR", "-u", "TERM"};
  for (const auto& [name, value] : setup.variables) words.push_back(name + "=" + value);
  words.push_back(APPSRVCTL_BINARY);
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int input[2] = {-1, -1};
  bool fed = pipe2(input, O_CLOEXEC) == 0 && write(input[1], setup.input.data(), setup.input.size()) >= 0;
  files_[0] = input[0], input_ = input[1];
  if (!fed) return;
  for (int stream : {1, 2}) files_[stream] = memfd_create("appsrvctl", MFD_CLOEXEC);
  master_ = terminal_ == 0 ? -1 : posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0) {
    close(files_[terminal_]);
    files_[terminal_] = open(ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  pid_ = fork();
  if (pid_ == 0) {
    alarm(30);  // a hanging client fails its test instead of the whole run
    for (int stream = 0; stream < 3; ++stream)  // dup2 clears close-on-exec on the copies
      if (dup2(files_[stream], stream) < 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
}

Ctl::~Ctl() {
  if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  for (int fd : {files_[0], files_[1], files_[2], master_, input_})
    if (fd >= 0) close(fd);
}

std::string Ctl::read_stream(int stream) const {
  std::string text;
  char buffer[4096];
  // The few lines put on a terminal wait on its master side.
  pollfd entry{master_, POLLIN, 0};
  if (stream == terminal_)
    for (ssize_t got; poll(&entry, 1, 100) > 0 && (got = read(master_, buffer, sizeof buffer)) > 0;)
      text.append(buffer, static_cast<size_t>(got));
  else
    for (ssize_t got; (got = pread(files_[stream], buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
      text.append(buffer, static_cast<size_t>(got));
  return text;
}

Outcome Ctl::wait() {
  if (input_ >= 0) close(std::exchange(input_, -1));
  int status = 0;
  if (pid_ <= 0 || waitpid(std::exchange(pid_, -1), &status, 0) < 0) return {};
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_stream(1), read_stream(2)};
}

Outcome appsrvctl(const std::vector<std::string>& arguments, const Invocation& setup) {
  return Ctl(arguments, setup).wait();
}

Invocation reaching(const Daemon& daemon, const std::string& input, Variables variables) {
  variables.insert(variables.begin(), {{"APPSRV_ADDRESS", "127.0.0.1:" + std::to_string(daemon.port())},
                                       {"APPSRV_WORKDIR", daemon.path("")}});
  return {input, 0, variables};
}

Outcome appsrvctl(const Daemon& daemon, const std::vector<std::string>& arguments, const std::string& input,
                  const Variables& variables) {
  return appsrvctl(arguments, reaching(daemon, input, variables));
}

}  // namespace e2e

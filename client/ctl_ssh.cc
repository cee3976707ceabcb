#include "client/ctl_ssh.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/runtime.h"
#include "client/ctl_commands.h"

extern char** environ;

namespace {

// How long a failed connection waits for its ssh to end and say why.
constexpr int64_t kExplainWait_ms = 2000;
constexpr uint32_t kExplainPoll_ms = 10;

// The ssh of the latest connection.
struct ssh_child {
  pid_t pid = -1;
  int messages = -1;  // the read end of its standard error
  const ctl_address* address = nullptr;
};
ssh_child latest;

using arguments = std::vector<std::string>;

// ssh and the options every use shares. ssh keeps the first value given for
// an option, so the operator's come first. A prompt could not be answered
// through a socket pair, and would hold a script forever.
arguments ssh_command(const ctl_ssh_host& host, uint32_t timeout_ms) {
  arguments argv = {"ssh"};
  if (const char* extra = getenv("APPSRV_SSH_OPTIONS")) {
    std::istringstream words(extra);
    for (std::string word; words >> word;) argv.push_back(word);
  }
  argv.insert(argv.end(), {"-o", "BatchMode=yes", "-o", "ConnectTimeout=" + std::to_string((timeout_ms + 999) / 1000),
                           "-e", "none"});
  if (host.port[0] != '\0') argv.insert(argv.end(), {"-p", host.port});
  return argv;
}

// A descriptor above the standard three, so that placing the child's
// streams cannot overwrite it (appsrvctl may be started with one closed).
int above_standard(int descriptor) {
  if (descriptor > 2) return descriptor;
  int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
  close(descriptor);
  return moved;
}

// Starts `argv` from PATH with each given descriptor (-1: ours) as standard
// input, output and error. The child gets SIGPIPE back, which appsrvctl
// ignores. The pid, or -1 with errno.
pid_t spawn(const arguments& argv, int input, int output, int errors) {
  std::vector<char*> vector;
  for (const std::string& word : argv) vector.push_back(const_cast<char*>(word.c_str()));
  vector.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  int streams[3] = {input, output, errors};
  for (int number = 0; number < 3; ++number)
    if (streams[number] >= 0) posix_spawn_file_actions_adddup2(&actions, streams[number], number);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  int error = posix_spawnp(&pid, vector[0], &actions, &attributes, vector.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  errno = error;
  return error == 0 ? pid : -1;
}

// The ssh of an earlier connection ends by itself once its socket is closed.
void forget_latest() {
  if (latest.messages >= 0) close(latest.messages);
  if (latest.pid > 0) waitpid(latest.pid, nullptr, WNOHANG);
  latest = ssh_child{};
}

bool wait_for_end(pid_t pid, int* status) {
  int64_t deadline = runtime_getclock() + kExplainWait_ms;
  do {
    pid_t ended = waitpid(pid, status, WNOHANG);
    if (ended == pid) return true;
    if (ended < 0 && errno != EINTR) return false;
    runtime_sleep(kExplainPoll_ms);
  } while (runtime_getclock() < deadline);
  return false;
}

// What ssh wrote, one clause per line, without its carriage returns, its
// own "ssh: " and the notes about newly known hosts.
std::string messages_of(int descriptor) {
  std::string text;
  char buffer[4096];
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
  for (ssize_t got; (got = read(descriptor, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR);)
    if (got > 0) text.append(buffer, static_cast<size_t>(got));
  std::string said;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    if (line.rfind("ssh: ", 0) == 0) line.erase(0, 5);
    if (line.empty() || line.rfind("Warning: Permanently added", 0) == 0) continue;
    said += (said.empty() ? "" : "; ") + line;
  }
  return said;
}

// One word for the remote shell, whatever bytes it holds.
std::string shell_quoted(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The command line for appsrvctl on the SSH host.
std::string remote_command(const ctl_options* options) {
  arguments words = {"appsrvctl", ctl_command_name(options->command)};
  if (options->json) words.push_back("--json");
  if (options->command == CTL_LOGS) words.insert(words.end(), {"-n", std::to_string(options->lines)});
  if (options->follow) words.push_back("-f");
  if (options->workdir_given) words.insert(words.end(), {"--workdir", options->workdir});
  words.push_back("--");
  for (const char* operand : options->operands) words.push_back(operand);
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + shell_quoted(word);
  return line;
}

}  // namespace

int ctl_ssh_connect(const ctl_address* address, uint32_t timeout_ms, socket_record* sock, ctl_fault* fault) {
  forget_latest();
  int pair[2];
  int errors[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    *fault = {CTL_UNREACHABLE, std::string("cannot start ssh: ") + strerror(errno)};
    return -1;
  }
  if (pipe2(errors, O_CLOEXEC) != 0) {
    *fault = {CTL_UNREACHABLE, std::string("cannot start ssh: ") + strerror(errno)};
    close(pair[0]);
    close(pair[1]);
    return -1;
  }
  for (int* descriptor : {&pair[0], &pair[1], &errors[0], &errors[1]}) *descriptor = above_standard(*descriptor);
  arguments argv = ssh_command(address->ssh, timeout_ms);
  argv.insert(argv.end(), {"-W", address->endpoint, "--", address->ssh.destination});
  pid_t pid = spawn(argv, pair[1], pair[1], errors[1]);
  int error = errno;
  close(pair[1]);
  close(errors[1]);
  if (pid < 0) {
    close(pair[0]);
    close(errors[0]);
    *fault = {CTL_UNREACHABLE, std::string("cannot start ssh: ") + strerror(error)};
    return -1;
  }
  latest = {pid, errors[0], address};
  if (socket_load(pair[0], sock) != 0) {
    close(pair[0]);
    *fault = {CTL_UNREACHABLE, std::string("cannot start ssh: ") + socket_strerror(nullptr)};
    return -1;
  }
  return 0;
}

void ctl_ssh_explain(ctl_fault* fault) {
  if (latest.pid <= 0) return;
  int status = 0;
  if (!wait_for_end(latest.pid, &status)) {
    // Whatever it is waiting for, nobody needs it any more.
    kill(latest.pid, SIGTERM);
    return;
  }
  latest.pid = -1;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 255) return;
  std::string said = messages_of(latest.messages);
  *fault = {CTL_UNREACHABLE, said.empty() ? std::string("ssh failed (status 255)") : "ssh: " + said};
  // ssh reached the host, but nothing there took the forwarded connection.
  if (said.find("forwarding failed") != std::string::npos)
    fault->hint = std::string("no daemon is listening at ") + latest.address->endpoint +
                  " on the SSH host; give its address there with --address";
}

int ctl_ssh_run(const ctl_options* options) {
  const ctl_ssh_host& host = options->address.ssh;
  arguments argv = ssh_command(host, options->timeout_ms);
  argv.insert(argv.end(), {"-n", "--", host.destination, remote_command(options)});
  pid_t pid = spawn(argv, -1, -1, -1);
  if (pid < 0) {
    ctl_report_local("ssh %s: cannot start ssh: %s", host.display, strerror(errno));
    return CTL_UNREACHABLE;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  // ssh's own failures, and a shell that found no appsrvctl, have said why
  // on the way; what is left is to say where.
  if (WEXITSTATUS(status) == 255) {
    ctl_report_local("ssh %s: ssh failed (status 255)", host.display);
    return CTL_UNREACHABLE;
  }
  if (WEXITSTATUS(status) == 127) {
    ctl_report_local("ssh %s: appsrvctl is not installed there (or not on the PATH ssh gets)", host.display);
    return CTL_UNREACHABLE;
  }
  return WEXITSTATUS(status);
}

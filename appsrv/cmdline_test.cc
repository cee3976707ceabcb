#include "appsrv/cmdline.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace cl = image::application_server;

namespace {

constexpr int kReturned = 42;  // exit status of a child whose do_parse returned

// Runs do_parse in a child with standard error on a pipe; returns the exit
// status and every byte written, then what was parsed if do_parse returned.
std::pair<int, std::string> parse(std::vector<std::string> words, int argc = -1) {
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int fds[2];
  if (pipe(fds) != 0) return {-1, "no pipe"};
  fflush(nullptr);
  pid_t child = fork();
  if (child == 0) {
    dup2(fds[1], 2);
    cl::root parsed{};
    cl::do_parse(argc >= 0 ? argc : static_cast<int>(words.size()), argv.data(), &parsed);
    fprintf(stderr, "parsed %s %s", parsed.socket.tcp_ip, parsed.socket.tcp_port);
    _exit(kReturned);
  }
  close(fds[1]);
  std::string err;
  char chunk[512];
  for (ssize_t got; (got = read(fds[0], chunk, sizeof chunk)) > 0;) err.append(chunk, got);
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, err};
}

const std::string kUsage =
    "\x1b[1musage:\x1b[0m  'socket'\n"
    "   socket                -> \x1b[1mtcp-ip tcp-port\x1b[0m socket to listen on for management request\n";

std::pair<int, std::string> report(const std::string& message, const std::string& words, int caret_width) {
  return {1, "unable to parse arguments: " + message + "\n\n" + words + "\n" + std::string(caret_width, ' ') +
                 "^\n\n" + kUsage};
}

const std::string kTooFew = "tcp/ip socket 'socket' requires 2 arguments, but less arguments are available";
const std::string kSuperfluous = "superfluous command line argument(s)";

}  // namespace

TEST(CommandLine, HelpAloneWritesTheUsageAndExitsZero) {
  EXPECT_EQ(parse({"./srv", "--help"}), std::pair(0, kUsage));
}

TEST(CommandLine, HostAndPortAreTakenAsTheyStandEvenHelp) {
  EXPECT_EQ(parse({"./srv", "10.0.0.1", "7340"}), std::pair(kReturned, std::string("parsed 10.0.0.1 7340")));
  EXPECT_EQ(parse({"./srv", "--help", "x"}), std::pair(kReturned, std::string("parsed --help x")));
}

TEST(CommandLine, ErrorsPutTheCaretUnderTheOffendingByteAndExitOne) {
  // Past the program name when nothing follows it, else under the word at fault.
  EXPECT_EQ(parse({"./srv"}), report(kTooFew, " ./srv", 7));
  EXPECT_EQ(parse({"./srv", "10.0.0.1"}), report(kTooFew, " ./srv 10.0.0.1", 7));
  EXPECT_EQ(parse({"./appsrv", "::1", "80", "extra", "more"}),
            report(kSuperfluous, " ./appsrv ::1 80 extra more", 1 + 9 + 4 + 3));
  // The width counts bytes, not columns: the two-byte letter moves the caret by two.
  EXPECT_EQ(parse({"./\xc3\xa9", "a", "b", "c"}), report(kSuperfluous, " ./\xc3\xa9 a b c", 1 + 5 + 2 + 2));
}

TEST(CommandLine, NoArgumentVectorAtAllWritesOneLine) {
  EXPECT_EQ(parse({"./srv"}, 0), std::pair(1, std::string("unable to parse arguments: no arguments provided to parse\n")));
}

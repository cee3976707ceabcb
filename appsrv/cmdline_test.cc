#include "appsrv/cmdline.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace cl = image::application_server;

namespace {

constexpr int kReturned = 42;  // exit status of a child whose do_parse returned

struct Outcome {
  std::string err;
  int status;
  cl::root parsed;
};

// Runs do_parse in a child with standard error on a pipe, so exits and the
// exact bytes written can both be checked.
Outcome parse(std::vector<std::string> words, int argc_override = -1) {
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  int argc = argc_override >= 0 ? argc_override : static_cast<int>(words.size());
  int pipe_fds[2];
  EXPECT_EQ(pipe(pipe_fds), 0);
  int parsed_pipe[2];
  EXPECT_EQ(pipe(parsed_pipe), 0);
  pid_t child = fork();
  if (child == 0) {
    dup2(pipe_fds[1], 2);
    cl::root parsed{};
    cl::do_parse(argc, argv.data(), &parsed);
    std::string fields = std::string(parsed.socket.tcp_ip) + '\n' + parsed.socket.tcp_port;
    (void)!write(parsed_pipe[1], fields.data(), fields.size());
    _exit(kReturned);
  }
  close(pipe_fds[1]);
  close(parsed_pipe[1]);
  Outcome outcome{};
  char chunk[512];
  for (ssize_t got; (got = read(pipe_fds[0], chunk, sizeof chunk)) > 0;) outcome.err.append(chunk, got);
  std::string fields;
  for (ssize_t got; (got = read(parsed_pipe[0], chunk, sizeof chunk)) > 0;) fields.append(chunk, got);
  close(pipe_fds[0]);
  close(parsed_pipe[0]);
  int status = 0;
  waitpid(child, &status, 0);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (outcome.status == kReturned) outcome.err += "|parsed:" + fields;
  return outcome;
}

const std::string kUsage =
    "\x1b[1musage:\x1b[0m  'socket'\n"
    "   socket                -> \x1b[1mtcp-ip tcp-port\x1b[0m socket to listen on for management request\n";

std::string report(const std::string& message, const std::string& words, int caret_width) {
  return "unable to parse arguments: " + message + "\n\n" + words + "\n" + std::string(caret_width, ' ') + "^\n\n" +
         kUsage;
}

const std::string kTooFew = "tcp/ip socket 'socket' requires 2 arguments, but less arguments are available";

}  // namespace

TEST(CommandLine, HelpAloneWritesUsageAndExitsZero) {
  Outcome outcome = parse({"./srv", "--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, kUsage);
  EXPECT_EQ(kUsage.size(), 25u + 95u);
}

TEST(CommandLine, HostAndPortAreTakenAsTheyStand) {
  EXPECT_EQ(parse({"./srv", "10.0.0.1", "7340"}).err, "|parsed:10.0.0.1\n7340");
  // "--help" among two words is an ordinary host word.
  Outcome outcome = parse({"./srv", "--help", "x"});
  EXPECT_EQ(outcome.status, kReturned);
  EXPECT_EQ(outcome.err, "|parsed:--help\nx");
}

TEST(CommandLine, MissingArgumentsPointPastTheLastWord) {
  Outcome none = parse({"./srv"});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, report(kTooFew, " ./srv", 7));

  Outcome one = parse({"./srv", "10.0.0.1"});
  EXPECT_EQ(one.status, 1);
  EXPECT_EQ(one.err, report(kTooFew, " ./srv 10.0.0.1", 7));
}

TEST(CommandLine, SuperfluousWordsPointAtTheThirdArgument) {
  Outcome outcome = parse({"./appsrv", "::1", "80", "extra", "more"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, report("superfluous command line argument(s)", " ./appsrv ::1 80 extra more", 1 + 9 + 4 + 3));
}

TEST(CommandLine, CaretCountsBytesNotColumns) {
  // "é" is two bytes: the caret moves two columns for it.
  Outcome outcome = parse({"./é", "a", "b", "c"});
  EXPECT_EQ(outcome.err, report("superfluous command line argument(s)", " ./é a b c", 1 + 5 + 2 + 2));
}

TEST(CommandLine, NoArgumentVectorAtAll) {
  Outcome outcome = parse({"./srv"}, 0);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "unable to parse arguments: no arguments provided to parse\n");
  EXPECT_EQ(outcome.err.size(), 58u);
}

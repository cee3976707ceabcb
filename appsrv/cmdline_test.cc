#include "appsrv/cmdline.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace cl = image::application_server;

namespace {

constexpr int kReturned = 42;  // exit status when do_parse returned

// Runs do_parse over `words` (with their number as argc unless one is given);
// if it returns, writes what it parsed and exits with kReturned.
[[noreturn]] void run(std::vector<std::string> words, int argc) {
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  cl::root parsed{};
  cl::do_parse(argc >= 0 ? argc : static_cast<int>(words.size()), argv.data(), &parsed);
  fprintf(stderr, "parsed %s %s", parsed.socket.tcp_ip, parsed.socket.tcp_port);
  _exit(kReturned);
}

const std::string kUsage =
    "\x1b[1musage:\x1b[0m  'socket'\n"
    "   socket                -> \x1b[1mtcp-ip tcp-port\x1b[0m socket to listen on for management request\n";

std::string report(const std::string& message, const std::string& words, int caret_width) {
  return "unable to parse arguments: " + message + "\n\n" + words + "\n" + std::string(caret_width, ' ') + "^\n\n" +
         kUsage;
}

const std::string kTooFew = "tcp/ip socket 'socket' requires 2 arguments, but less arguments are available";
const std::string kSuperfluous = "superfluous command line argument(s)";

}  // namespace

// The exit status and every byte written to standard error.
TEST(CommandLine, ExitStatusAndStandardErrorOfEachArgumentVector) {
  const struct { std::vector<std::string> words; int status; std::string err; int argc = -1; } cases[] = {
      {{"./srv", "--help"}, 0, kUsage},
      {{"./srv", "10.0.0.1", "7340"}, kReturned, "parsed 10.0.0.1 7340"},
      {{"./srv", "--help", "x"}, kReturned, "parsed --help x"},  // host and port are taken as they stand
      // The caret goes past the program name when nothing follows it, else under the word at fault.
      {{"./srv"}, 1, report(kTooFew, " ./srv", 7)},
      {{"./srv", "10.0.0.1"}, 1, report(kTooFew, " ./srv 10.0.0.1", 7)},
      {{"./appsrv", "::1", "80", "extra", "more"}, 1,
       report(kSuperfluous, " ./appsrv ::1 80 extra more", 1 + 9 + 4 + 3)},
      // The width counts bytes, not columns: the two-byte letter moves the caret by two.
      {{"./\xc3\xa9", "a", "b", "c"}, 1, report(kSuperfluous, " ./\xc3\xa9 a b c", 1 + 5 + 2 + 2)},
      {{"./srv"}, 1, "unable to parse arguments: no arguments provided to parse\n", 0},  // no argument vector at all
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.words) + " argc " + std::to_string(c.argc));
    EXPECT_EXIT(run(c.words, c.argc), testing::ExitedWithCode(c.status), testing::Matcher<const std::string&>(c.err));
  }
}

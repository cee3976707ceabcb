#include "client/ctl_args.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

// Parses the words after the program name.
ctl_options parse(std::vector<std::string> words, const char* environment = nullptr) {
  static std::vector<std::string> storage;  // the operands point into it until the next call
  storage = std::move(words);
  storage.insert(storage.begin(), "appsrvctl");
  std::vector<char*> argv;
  for (std::string& word : storage) argv.push_back(word.data());
  ctl_options options;
  ctl_parse(static_cast<int>(argv.size()), argv.data(), environment, &options);
  return options;
}

TEST(CtlArgs, OptionsGoBeforeOrAfterTheSubcommandUntilADoubleDash) {
  ctl_options before = parse({"--address", "10.0.0.1:80", "--timeout=5", "rm", "--force", "--", "--json"});
  ASSERT_EQ(before.action, CTL_RUN) << before.error;
  EXPECT_STREQ(before.address.display, "10.0.0.1:80");
  EXPECT_EQ(before.timeout_ms, 5000u);
  EXPECT_EQ(before.force, 1);
  EXPECT_STREQ(before.operands[0], "--json");

  ctl_options after = parse({"rename", "old", "--address=10.0.0.2:81", "new"});
  ASSERT_EQ(after.action, CTL_RUN) << after.error;
  EXPECT_STREQ(after.address.display, "10.0.0.2:81");
  EXPECT_STREQ(after.operands[0], "old");
  EXPECT_STREQ(after.operands[1], "new");
}

TEST(CtlArgs, UsageErrorsNameWhatIsWrong) {
  for (const auto& [words, error] : std::vector<std::pair<std::vector<std::string>, const char*>>{
           {{}, "missing command"},
           {{"frobnicate"}, "unknown command 'frobnicate'"},
           {{"list", "--verbose"}, "unknown option '--verbose'"},
           {{"upload", "n"}, "missing arguments for upload"},
           {{"delete", "a", "b"}, "too many arguments for delete"},
           {{"delete", "--json", "a"}, "--json applies to list only"},
           {{"list", "--service"}, "--service applies to upload only"},
           {{"list", "--address"}, "option --address needs HOST:PORT"},
           {{"list", "--timeout", "0"}, "invalid --timeout '0': give positive seconds up to 2147483"},
       }) {
    ctl_options options = parse(words);
    EXPECT_EQ(options.action, CTL_USAGE) << error;
    EXPECT_STREQ(options.error, error);
  }
}

TEST(CtlArgs, HelpAndVersionWinOverMissingOperands) {
  ctl_options upload = parse({"-h", "upload"});
  EXPECT_EQ(upload.action, CTL_HELP);
  EXPECT_EQ(upload.command, CTL_UPLOAD);
  EXPECT_EQ(parse({"--version"}).action, CTL_VERSION);
  EXPECT_EQ(std::string(ctl_help_text(CTL_SELECT)).rfind(ctl_usage_line(CTL_SELECT), 0), 0u)
      << "a command's help opens with its usage line";
}

TEST(CtlArgs, AddressComesFromFlagThenEnvironmentThenDefault) {
  EXPECT_STREQ(parse({"ls", "--address", "10.1.1.1:1"}, "10.2.2.2:2").address.display, "10.1.1.1:1");
  EXPECT_STREQ(parse({"ls"}, "").address.display, "127.0.0.1:7340") << "an empty variable is unset";
  EXPECT_STREQ(parse({"ls"}).address.display, "127.0.0.1:7340");
  EXPECT_STREQ(parse({"ls"}, "nonsense").error, "invalid APPSRV_ADDRESS 'nonsense': missing port (HOST:PORT)");
  EXPECT_EQ(parse({"ls", "--address", "10.1.1.1:1"}, "nonsense").action, CTL_RUN)
      << "a flag makes a broken variable irrelevant";
}

TEST(CtlArgs, AddressesAreNumericWithIpv6InBracketsAndPortsUpTo65535) {
  ctl_address address;
  char error[128];
  ASSERT_EQ(ctl_parse_address("[::1]:7340", &address, error, sizeof error), 0) << error;
  EXPECT_STREQ(address.host, "::1");
  EXPECT_STREQ(address.display, "[::1]:7340");
  ASSERT_EQ(ctl_parse_address("192.168.0.9:08080", &address, error, sizeof error), 0) << error;
  EXPECT_STREQ(address.port, "8080");
  const char* bad_port = "the port must be a number from 1 to 65535";
  for (auto [text, reason] : std::vector<std::pair<const char*, const char*>>{
           {"::1:7340", "an IPv6 address needs brackets, as in [::1]:7340"},
           {"[::1]7340", "missing port after ']'"},
           {"[::1:7340", "missing ']' after the IPv6 address"},
           {"localhost:7340", "the host must be a numeric address"},
           {"127.0.0.1", "missing port (HOST:PORT)"},
           {"127.0.0.1:0", bad_port},
           {"127.0.0.1:65536", bad_port},
           {"127.0.0.1:065535", bad_port},
           {"127.0.0.1:http", bad_port},
       }) {
    EXPECT_EQ(ctl_parse_address(text, &address, error, sizeof error), -1) << text;
    EXPECT_STREQ(error, reason) << text;
  }
}

TEST(CtlArgs, TimeoutsArePositiveSecondsToTheMillisecond) {
  for (auto [text, ms] : std::vector<std::pair<const char*, int64_t>>{
           {"30", 30000}, {"0.25", 250}, {".5", 500}, {"1.0009", 1000}, {"2147483", 2147483000}, {"", -1},
           {"0", -1}, {"0.0001", -1}, {"-1", -1}, {"1e3", -1}, {"2147484", -1}, {"99999999999999999999", -1},
           {".", -1}, {"5s", -1}}) {
    uint32_t parsed = 0;
    int result = ctl_parse_timeout(text, &parsed);
    EXPECT_EQ(result == 0 ? int64_t{parsed} : result, ms) << text;
  }
}

}  // namespace

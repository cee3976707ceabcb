#include "client/ctl_args.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

// Parses the words after the program name.
struct Parsed {
  ctl_action action;
  ctl_options options;
};

Parsed parse(std::initializer_list<const char*> words, const char* environment = nullptr) {
  std::vector<std::string> storage = {"appsrvctl"};
  for (const char* word : words) storage.emplace_back(word);
  std::vector<char*> argv;
  for (std::string& word : storage) argv.push_back(word.data());
  argv.push_back(nullptr);
  Parsed parsed{};
  parsed.action = ctl_parse(static_cast<int>(storage.size()), argv.data(), environment, &parsed.options);
  // The operands pointed into `storage`, which dies here: callers look at
  // everything but them.
  return parsed;
}

TEST(CtlArgs, SubcommandsAndAliasesTakeTheirOperands) {
  struct Case {
    std::initializer_list<const char*> words;
    ctl_command command;
  };
  for (const Case& c : {Case{{"list"}, CTL_LIST}, Case{{"ls"}, CTL_LIST}, Case{{"upload", "n", "f"}, CTL_UPLOAD},
                        Case{{"delete", "n"}, CTL_DELETE}, Case{{"rm", "n"}, CTL_DELETE},
                        Case{{"rename", "a", "b"}, CTL_RENAME}, Case{{"select", "n"}, CTL_SELECT},
                        Case{{"attach", "n"}, CTL_SELECT}}) {
    Parsed p = parse(c.words);
    EXPECT_EQ(p.action, CTL_RUN) << *c.words.begin() << ": " << p.options.error;
    EXPECT_EQ(p.options.command, c.command) << *c.words.begin();
  }
}

TEST(CtlArgs, OperandsKeepTheirOrder) {
  std::vector<std::string> storage = {"appsrvctl", "rename", "old", "new"};
  std::vector<char*> argv;
  for (std::string& word : storage) argv.push_back(word.data());
  ctl_options options;
  ASSERT_EQ(ctl_parse(4, argv.data(), nullptr, &options), CTL_RUN);
  EXPECT_STREQ(options.operands[0], "old");
  EXPECT_STREQ(options.operands[1], "new");
}

TEST(CtlArgs, OptionsGoBeforeOrAfterTheSubcommand) {
  Parsed before = parse({"--address", "10.0.0.1:80", "--timeout=5", "delete", "--force", "n"});
  ASSERT_EQ(before.action, CTL_RUN) << before.options.error;
  EXPECT_STREQ(before.options.address.display, "10.0.0.1:80");
  EXPECT_EQ(before.options.timeout_ms, 5000u);
  EXPECT_EQ(before.options.force, 1);

  Parsed after = parse({"list", "--json", "--address=10.0.0.2:81"});
  ASSERT_EQ(after.action, CTL_RUN) << after.options.error;
  EXPECT_EQ(after.options.json, 1);
  EXPECT_STREQ(after.options.address.display, "10.0.0.2:81");
}

TEST(CtlArgs, DoubleDashEndsTheOptions) {
  std::vector<std::string> storage = {"appsrvctl", "delete", "--", "--force"};
  std::vector<char*> argv;
  for (std::string& word : storage) argv.push_back(word.data());
  ctl_options options;
  ASSERT_EQ(ctl_parse(4, argv.data(), nullptr, &options), CTL_RUN) << options.error;
  EXPECT_STREQ(options.operands[0], "--force");
  EXPECT_EQ(options.force, 0);
}

TEST(CtlArgs, UsageErrorsNameWhatIsWrong) {
  struct Case {
    std::initializer_list<const char*> words;
    const char* error;
  };
  for (const Case& c : {
           Case{{}, "missing command"},
           Case{{"frobnicate"}, "unknown command 'frobnicate'"},
           Case{{"list", "--verbose"}, "unknown option '--verbose'"},
           Case{{"upload", "n"}, "missing arguments for upload"},
           Case{{"rename", "a"}, "missing arguments for rename"},
           Case{{"delete"}, "missing arguments for delete"},
           Case{{"delete", "a", "b"}, "too many arguments for delete"},
           Case{{"list", "x"}, "too many arguments for list"},
           Case{{"delete", "--json", "a"}, "--json applies to list only"},
           Case{{"list", "--force"}, "--force applies to delete only"},
           Case{{"list", "--address"}, "option --address needs HOST:PORT"},
           Case{{"list", "--timeout"}, "option --timeout needs SECONDS"},
           Case{{"list", "--timeout", "0"}, "invalid --timeout '0': give positive seconds up to 2147483"},
       }) {
    Parsed p = parse(c.words);
    EXPECT_EQ(p.action, CTL_USAGE) << c.error;
    EXPECT_STREQ(p.options.error, c.error);
  }
}

TEST(CtlArgs, HelpAndVersionWinOverMissingOperands) {
  Parsed program = parse({"--help"});
  EXPECT_EQ(program.action, CTL_HELP);
  EXPECT_EQ(program.options.command, CTL_NONE);
  Parsed upload = parse({"upload", "--help"});
  EXPECT_EQ(upload.action, CTL_HELP);
  EXPECT_EQ(upload.options.command, CTL_UPLOAD);
  EXPECT_EQ(parse({"-h", "rm"}).options.command, CTL_DELETE);
  EXPECT_EQ(parse({"--version"}).action, CTL_VERSION);
  EXPECT_NE(std::string(ctl_help_text(CTL_UPLOAD)), ctl_help_text(CTL_NONE));
  EXPECT_EQ(std::string(ctl_help_text(CTL_SELECT)).rfind(ctl_usage_line(CTL_SELECT), 0), 0u)
      << "a command's help opens with its usage line";
}

TEST(CtlArgs, AddressComesFromFlagThenEnvironmentThenDefault) {
  EXPECT_STREQ(parse({"ls", "--address", "10.1.1.1:1"}, "10.2.2.2:2").options.address.display, "10.1.1.1:1");
  EXPECT_STREQ(parse({"ls"}, "10.2.2.2:2").options.address.display, "10.2.2.2:2");
  EXPECT_STREQ(parse({"ls"}, "").options.address.display, "127.0.0.1:7340") << "an empty variable is unset";
  EXPECT_STREQ(parse({"ls"}).options.address.display, "127.0.0.1:7340");

  Parsed bad = parse({"ls"}, "nonsense");
  EXPECT_EQ(bad.action, CTL_USAGE);
  EXPECT_STREQ(bad.options.error, "invalid APPSRV_ADDRESS 'nonsense': missing port (HOST:PORT)");
  EXPECT_EQ(parse({"ls", "--address", "10.1.1.1:1"}, "nonsense").action, CTL_RUN)
      << "a flag makes a broken variable irrelevant";
}

TEST(CtlArgs, AddressesAreNumericWithIpv6InBrackets) {
  ctl_address address;
  char error[128];
  ASSERT_EQ(ctl_parse_address("[::1]:7340", &address, error, sizeof error), 0) << error;
  EXPECT_STREQ(address.host, "::1");
  EXPECT_STREQ(address.port, "7340");
  EXPECT_STREQ(address.display, "[::1]:7340");
  ASSERT_EQ(ctl_parse_address("192.168.0.9:065535", &address, error, sizeof error), -1)
      << "six digits are too many even with a leading zero";
  ASSERT_EQ(ctl_parse_address("192.168.0.9:08080", &address, error, sizeof error), 0) << error;
  EXPECT_STREQ(address.port, "8080");

  struct Case {
    const char* text;
    const char* error;
  };
  for (const Case& c : {
           Case{"::1:7340", "an IPv6 address needs brackets, as in [::1]:7340"},
           Case{"[::1]7340", "missing port after ']'"},
           Case{"[::1:7340", "missing ']' after the IPv6 address"},
           Case{"[127.0.0.1]:7340", "not a numeric IPv6 address"},
           Case{"localhost:7340", "the host must be a numeric address"},
           Case{":7340", "missing host"},
           Case{"127.0.0.1", "missing port (HOST:PORT)"},
           Case{"127.0.0.1:", "the port must be a number from 1 to 65535"},
           Case{"127.0.0.1:0", "the port must be a number from 1 to 65535"},
           Case{"127.0.0.1:65536", "the port must be a number from 1 to 65535"},
           Case{"127.0.0.1:http", "the port must be a number from 1 to 65535"},
           Case{"127.0.0.1:-1", "the port must be a number from 1 to 65535"},
       }) {
    EXPECT_EQ(ctl_parse_address(c.text, &address, error, sizeof error), -1) << c.text;
    EXPECT_STREQ(error, c.error) << c.text;
  }
}

TEST(CtlArgs, TimeoutsArePositiveSeconds) {
  uint32_t ms = 0;
  EXPECT_EQ(ctl_parse_timeout("30", &ms), 0);
  EXPECT_EQ(ms, 30000u);
  EXPECT_EQ(ctl_parse_timeout("0.25", &ms), 0);
  EXPECT_EQ(ms, 250u);
  EXPECT_EQ(ctl_parse_timeout(".5", &ms), 0);
  EXPECT_EQ(ms, 500u);
  EXPECT_EQ(ctl_parse_timeout("1.0009", &ms), 0) << "digits below a millisecond are dropped";
  EXPECT_EQ(ms, 1000u);
  EXPECT_EQ(ctl_parse_timeout("2147483", &ms), 0);
  EXPECT_EQ(ms, 2147483000u);
  for (const char* bad : {"", "0", "0.0001", "-1", "1e3", "2147484", "99999999999999999999", ".", "5s"})
    EXPECT_EQ(ctl_parse_timeout(bad, &ms), -1) << bad;
}

}  // namespace

#include "client/ctl_args.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

// Parses the words after the program name.
// The variables are APPSRV_ADDRESS, APPSRV_SSH and APPSRV_WORKDIR.
ctl_options parse(std::vector<std::string> words, const char* address = nullptr, const char* ssh = nullptr,
                  const char* workdir = nullptr) {
  static std::vector<std::string> storage;  // the operands point into it until the next call
  storage = std::move(words);
  storage.insert(storage.begin(), "appsrvctl");
  std::vector<char*> argv;
  for (std::string& word : storage) argv.push_back(word.data());
  ctl_options options;
  ctl_parse(static_cast<int>(argv.size()), argv.data(), ctl_environment{address, ssh, workdir}, &options);
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
           {{"delete", "--json", "a"}, "--json applies to list and status only"},
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

TEST(CtlArgs, SshHostAndWorkdirComeFromFlagThenEnvironmentAndApplyWhereTheyMean) {
  ctl_options flags = parse({"status", "--ssh", "ops@web1:2222", "--workdir", "/srv/flag"}, nullptr, "env", "/srv/env");
  ASSERT_EQ(flags.action, CTL_RUN) << flags.error;
  EXPECT_STREQ(flags.address.ssh.destination, "ops@web1");
  EXPECT_STREQ(flags.address.ssh.port, "2222");
  EXPECT_STREQ(flags.address.display, "127.0.0.1:7340 via ops@web1:2222");
  EXPECT_STREQ(flags.workdir, "/srv/flag");
  EXPECT_EQ(flags.workdir_given, 1);
  ctl_options variables = parse({"logs", "-n5", "-f", "app"}, nullptr, "env-host", "/srv/env");
  EXPECT_STREQ(variables.address.ssh.destination, "env-host");
  EXPECT_STREQ(variables.workdir, "/srv/env");
  EXPECT_EQ(variables.workdir_given, 0) << "only a flag is passed on to the SSH host";
  EXPECT_EQ(variables.lines, 5u);
  EXPECT_STREQ(parse({"metrics"}).workdir, "/var/lib/appsrv");
  EXPECT_STREQ(parse({"ls"}).address.ssh.destination, "");

  for (auto [words, error] : std::vector<std::pair<std::vector<std::string>, const char*>>{
           {{"ls", "--workdir", "/x"}, "--workdir applies to status, logs and metrics only"},
           {{"status", "-f"}, "-n and -f apply to logs only"},
           {{"logs", "-n", "ten", "app"}, "invalid -n 'ten': give a number of lines"},
           {{"logs"}, "missing arguments for logs"},
           {{"metrics", "x"}, "too many arguments for metrics"},
       }) {
    EXPECT_STREQ(parse(words).error, error);
  }
}

TEST(CtlArgs, SshHostsTakeAUserAPortAndIpv6InBracketsButNothingSshWouldReadAsAnOption) {
  ctl_ssh_host ssh;
  char error[160];
  for (auto [text, destination, port] : std::vector<std::tuple<const char*, const char*, const char*>>{
           {"web1", "web1", ""}, {"root@10.0.0.5:22", "root@10.0.0.5", "22"}, {"[::1]:2222", "::1", "2222"},
           {"me@[fe80::1]", "me@fe80::1", ""}}) {
    ASSERT_EQ(ctl_parse_ssh_host(text, &ssh, error, sizeof error), 0) << text << ": " << error;
    EXPECT_STREQ(ssh.destination, destination);
    EXPECT_STREQ(ssh.port, port);
    EXPECT_STREQ(ssh.display, text);
  }
  const char* unsafe = "give [USER@]HOST[:PORT] without spaces, control characters or a leading '-'";
  for (auto [text, reason] : std::vector<std::pair<const char*, const char*>>{
           {"-oProxyCommand=x", unsafe}, {"-l@host", unsafe}, {"a b", unsafe}, {"", unsafe}, {"user@", unsafe},
           {"host:", "the port must be a number from 1 to 65535"}, {"::1", "an IPv6 address needs brackets, as in [::1]:22"},
           {"[::1]x", "only :PORT may follow ']'"}}) {
    EXPECT_EQ(ctl_parse_ssh_host(text, &ssh, error, sizeof error), -1) << text;
    EXPECT_STREQ(error, reason) << text;
  }
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

#include "client/ctl_args.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

// What ctl_parse made of the words after the program name: the usage error,
// or the action, the command with its operands, then where the daemon is and
// the options where they differ from the defaults (the address and working
// directory spelled out, as operators know them).
std::string parsed(std::vector<std::string> words, const ctl_environment& environment) {
  words.insert(words.begin(), "appsrvctl");
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  ctl_options o;
  if (ctl_parse(static_cast<int>(argv.size()), argv.data(), environment, &o) == CTL_USAGE) return o.error;
  std::string text = o.action == CTL_HELP ? "help " : o.action == CTL_VERSION ? "version " : "";
  text += ctl_command_name(o.command);
  for (const char* operand : o.operands) text += std::string(" ") + operand;
  if (o.action != CTL_RUN) return text;
  if (o.address.display != std::string("127.0.0.1:7340")) text += std::string(" at ") + o.address.display;
  if (o.workdir != std::string("/var/lib/appsrv")) text += std::string(" in ") + o.workdir;
  if (o.workdir_given) text += " (given)";
  if (o.address.ssh.destination[0] != '\0')
    text += std::string(" ssh ") + o.address.ssh.destination + " port '" + o.address.ssh.port + "'";
  if (o.timeout_ms != ctl_default_timeout_ms) text += " timeout " + std::to_string(o.timeout_ms);
  if (o.lines != ctl_default_lines) text += " lines " + std::to_string(o.lines);
  return text + (o.force ? " force" : "") + (o.follow ? " follow" : "") + (o.json ? " json" : "");
}

TEST(CtlArgs, CommandLinesAndTheVariablesTheyMeet) {
  struct Row {
    std::vector<std::string> words;
    std::string parsed;
    const char* address = nullptr;  // APPSRV_ADDRESS
    const char* ssh = nullptr;  // APPSRV_SSH
    const char* workdir = nullptr;  // APPSRV_WORKDIR
  };
  const std::string port = "the port must be a number from 1 to 65535", via = "list at 127.0.0.1:7340 via ",
                    brackets = "an IPv6 address needs brackets, as in [::1]:",
                    unsafe = "give [USER@]HOST[:PORT] without spaces, control characters or a leading '-'";
  for (const Row& row : std::vector<Row>{
           // Options go before or after the subcommand, until a double dash.
           {{"--address", "10.0.0.1:80", "--timeout=5", "rm", "--force", "--", "--json"},
            "delete --json at 10.0.0.1:80 timeout 5000 force"},
           {{"rename", "old", "--address=10.0.0.2:81", "new"}, "rename old new at 10.0.0.2:81"},
           // Help and version win over missing operands.
           {{"-h", "upload"}, "help upload"},
           {{"--version"}, "version appsrvctl"},
           // The address: the flag, then the variable (an empty one is unset), then the default.
           {{"ls", "--address", "10.1.1.1:1"}, "list at 10.1.1.1:1", "10.2.2.2:2"},
           {{"ls"}, "list", ""},
           {{"ls"}, "invalid APPSRV_ADDRESS 'nonsense': missing port (HOST:PORT)", "nonsense"},
           {{"ls", "--address", "10.1.1.1:1"}, "list at 10.1.1.1:1", "nonsense"},
           // The SSH host and the working directory likewise; only a --workdir is passed on to the SSH host.
           {{"status", "--ssh", "ops@web1:2222", "--workdir", "/srv/flag"},
            "status at 127.0.0.1:7340 via ops@web1:2222 in /srv/flag (given) ssh ops@web1 port '2222'", nullptr,
            "env", "/srv/env"},
           {{"logs", "-n5", "-f", "app"},
            "logs app at 127.0.0.1:7340 via jump in /srv ssh jump port '' lines 5 follow", nullptr, "jump", "/srv"},
           {{"metrics"}, "metrics"},
           // Usage errors name what is wrong.
           {{}, "missing command"},
           {{"frobnicate"}, "unknown command 'frobnicate'"},
           {{"list", "--verbose"}, "unknown option '--verbose'"},
           {{"upload", "n"}, "missing arguments for upload"},
           {{"delete", "a", "b"}, "too many arguments for delete"},
           {{"delete", "--json", "a"}, "--json applies to list and status only"},
           {{"list", "--service"}, "--service applies to upload only"},
           {{"ls", "--workdir", "/x"}, "--workdir applies to status, logs and metrics only"},
           {{"status", "-f"}, "-n and -f apply to logs only"},
           {{"list", "--address"}, "option --address needs HOST:PORT"},
           {{"list", "--timeout", "0"}, "invalid --timeout '0': give positive seconds up to 2147483"},
           {{"logs", "-n", "ten", "app"}, "invalid -n 'ten': give a number of lines"},
           // Addresses are numeric, IPv6 in brackets, ports up to 65535.
           {{"ls", "--address", "[::1]:7340"}, "list at [::1]:7340"},
           {{"ls", "--address", "192.168.0.9:08080"}, "list at 192.168.0.9:8080"},
           {{"ls", "--address", "::1:7340"}, "invalid --address '::1:7340': " + brackets + "7340"},
           {{"ls", "--address", "[::1]7340"}, "invalid --address '[::1]7340': missing port after ']'"},
           {{"ls", "--address", "[::1:7340"}, "invalid --address '[::1:7340': missing ']' after the IPv6 address"},
           {{"ls", "--address", "localhost:1"}, "invalid --address 'localhost:1': the host must be a numeric address"},
           {{"ls", "--address", "127.0.0.1"}, "invalid --address '127.0.0.1': missing port (HOST:PORT)"},
           {{"ls", "--address", "127.0.0.1:0"}, "invalid --address '127.0.0.1:0': " + port},
           {{"ls", "--address", "127.0.0.1:65536"}, "invalid --address '127.0.0.1:65536': " + port},
           {{"ls", "--address", "127.0.0.1:065535"}, "invalid --address '127.0.0.1:065535': " + port},
           {{"ls", "--address", "127.0.0.1:http"}, "invalid --address '127.0.0.1:http': " + port},
           // SSH hosts take a user, a port and IPv6 in brackets, but nothing ssh would read as an option.
           {{"ls", "--ssh", "root@10.0.0.5:22"}, via + "root@10.0.0.5:22 ssh root@10.0.0.5 port '22'"},
           {{"ls", "--ssh", "[::1]:2222"}, via + "[::1]:2222 ssh ::1 port '2222'"},
           {{"ls", "--ssh", "me@[fe80::1]"}, via + "me@[fe80::1] ssh me@fe80::1 port ''"},
           {{"ls", "--ssh", "-oProxyCommand=x"}, "invalid --ssh '-oProxyCommand=x': " + unsafe},
           {{"ls", "--ssh", "-l@host"}, "invalid --ssh '-l@host': " + unsafe},
           {{"ls", "--ssh", "a b"}, "invalid --ssh 'a b': " + unsafe},
           {{"ls", "--ssh", "user@"}, "invalid --ssh 'user@': " + unsafe},
           {{"ls", "--ssh", ""}, "invalid --ssh '': " + unsafe},
           {{"ls", "--ssh", "host:"}, "invalid --ssh 'host:': " + port},
           {{"ls", "--ssh", "::1"}, "invalid --ssh '::1': " + brackets + "22"},
           {{"ls", "--ssh", "[::1]x"}, "invalid --ssh '[::1]x': only :PORT may follow ']'"},
       }) {
    EXPECT_EQ(parsed(row.words, {row.address, row.ssh, row.workdir}), row.parsed);
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

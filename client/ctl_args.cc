#include "client/ctl_args.h"

#include <arpa/inet.h>
#include <climits>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <string_view>

namespace {

struct command_entry {
  std::string_view name;
  ctl_command command;
  int operands;  // how many it needs
  int most;  // how many it takes
};

// Aliases sit next to the name they stand for.
constexpr command_entry kCommands[] = {
    {"list", CTL_LIST, 0, 0},       {"ls", CTL_LIST, 0, 0},           {"upload", CTL_UPLOAD, 2, 2},
    {"delete", CTL_DELETE, 1, 1},   {"rm", CTL_DELETE, 1, 1},         {"rename", CTL_RENAME, 2, 2},
    {"select", CTL_SELECT, 1, 1},   {"attach", CTL_SELECT, 1, 1},     {"status", CTL_STATUS, 0, INT_MAX},
    {"logs", CTL_LOGS, 1, 1},       {"metrics", CTL_METRICS, 0, 0},
};

const command_entry* find_command(std::string_view name) {
  for (const command_entry& entry : kCommands)
    if (entry.name == name) return &entry;
  return nullptr;
}

const command_entry& entry_of(ctl_command command) {
  for (const command_entry& entry : kCommands)
    if (entry.command == command) return entry;
  return kCommands[0];
}

bool reads_workdir(ctl_command command) {
  return command == CTL_STATUS || command == CTL_LOGS || command == CTL_METRICS;
}

constexpr const char kProgramHelp[] =
    "usage: appsrvctl [OPTIONS] COMMAND [ARGS]\n"
    "\n"
    "Manage the stacks of an appsrv daemon.\n"
    "\n"
    "Commands:\n"
    "  list, ls [--json]     print the names of all stacks, one per line, or\n"
    "                        as a JSON array\n"
    "  upload [--service] NAME FILE|DIR\n"
    "                        deploy an image or a bundle as a new stack NAME;\n"
    "                        --service runs the program FILE as its service\n"
    "  delete, rm [--force] NAME\n"
    "                        delete the stack NAME (--force: a missing one too)\n"
    "  rename OLD NEW        give the stack OLD the name NEW\n"
    "  select, attach NAME   talk to the application of the stack NAME\n"
    "  status [--json] [NAME...]\n"
    "                        a table of the stacks: state, pid, uptime,\n"
    "                        restarts; --json for scripts\n"
    "  logs [-n LINES] [-f] NAME\n"
    "                        the last lines of the stack's log (10), -f to\n"
    "                        follow it\n"
    "  metrics               the daemon's figures for Prometheus\n"
    "\n"
    "Options (before or after the command; \"--\" ends them):\n"
    "  --address HOST:PORT   the daemon's address, a numeric host; IPv6 as\n"
    "                        [ADDRESS]:PORT (default: $APPSRV_ADDRESS, else\n"
    "                        127.0.0.1:7340)\n"
    "  --ssh [USER@]HOST[:PORT]\n"
    "                        reach the daemon through SSH on HOST, where\n"
    "                        --address is then seen from (default:\n"
    "                        $APPSRV_SSH); status, logs and metrics run\n"
    "                        appsrvctl there\n"
    "  --workdir DIR         the daemon's working directory, read by status,\n"
    "                        logs and metrics (default: $APPSRV_WORKDIR, else\n"
    "                        /var/lib/appsrv)\n"
    "  --timeout SECONDS     limit for connecting and for each wait on the\n"
    "                        daemon (default 30)\n"
    "  --help                show this help; COMMAND --help shows the command's\n"
    "  --version             show the version\n"
    "\n"
    "Exit status: 0 success, 1 failure reported by the daemon, 2 usage error,\n"
    "3 unknown name, 4 duplicate name, 5 daemon unreachable, timed out,\n"
    "closed without a reply, or not running.\n";

constexpr const char kListHelp[] =
    "usage: appsrvctl list [--json]\n"
    "\n"
    "Print the names of all stacks in ascending byte order, one per line.\n"
    "On a terminal, control bytes in names are shown escaped (\\xNN).\n"
    "Alias: ls.\n"
    "\n"
    "  --json   print one JSON array of strings instead\n"
    "\n"
    "Common options: --address HOST:PORT, --ssh HOST, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kUploadHelp[] =
    "usage: appsrvctl upload [--service] NAME FILE|DIR\n"
    "\n"
    "Deploy an application image as a new stack NAME and report what the new\n"
    "stack answered, its reason in full when it refused. The image is:\n"
    "  FILE   sent as it is: an executable run once per selected connection, or\n"
    "         a bundle (.tar, .tar.gz, .tar.zst) with appsrv.toml at its top\n"
    "  DIR    a directory with appsrv.toml at its top, packed into a bundle\n"
    "\n"
    "  --service  wrap the executable FILE into a bundle that runs it as the\n"
    "             stack's service, restarted when it fails\n"
    "\n"
    "The upload is refused before any image byte is sent when NAME is invalid\n"
    "or already taken. A progress line is shown on standard error when it is a\n"
    "terminal (not with NO_COLOR set).\n"
    "\n"
    "Common options: --address HOST:PORT, --ssh HOST, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kDeleteHelp[] =
    "usage: appsrvctl delete [--force] NAME\n"
    "\n"
    "Delete the stack NAME with its store. Alias: rm.\n"
    "\n"
    "  --force  succeed when no stack has the name\n"
    "\n"
    "Common options: --address HOST:PORT, --ssh HOST, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kRenameHelp[] =
    "usage: appsrvctl rename OLD NEW\n"
    "\n"
    "Give the stack OLD the name NEW.\n"
    "\n"
    "Common options: --address HOST:PORT, --ssh HOST, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kSelectHelp[] =
    "usage: appsrvctl select NAME\n"
    "\n"
    "Connect standard input and output to the application of the stack NAME\n"
    "until either side closes. An idle stack is started again and asked once\n"
    "more. Alias: attach.\n"
    "\n"
    "Common options: --address HOST:PORT, --ssh HOST, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kStatusHelp[] =
    "usage: appsrvctl status [--json] [NAME...]\n"
    "\n"
    "Show the stacks (or the stacks NAME) from the status snapshot the daemon\n"
    "keeps in its working directory: NAME, STATE, PID (the job's leader),\n"
    "UPTIME (of the job), RESTARTS, IMAGE (size) and KEY (its first 12\n"
    "characters), sorted by name. Where the stack's runtime runs a service,\n"
    "STATE adds the service's own state and RESTARTS counts the service's\n"
    "restarts; otherwise RESTARTS counts the jobs started after the first since\n"
    "the daemon started. Names are shown escaped (\\xNN); --json has them\n"
    "exact in name_hex.\n"
    "A snapshot whose daemon no longer runs is reported, with status 5.\n"
    "\n"
    "  --json   print one JSON array of the snapshot's stack objects, each with\n"
    "           a \"runtime\" member: what the runtime reports, or null\n"
    "\n"
    "Common options: --workdir DIR, --ssh HOST (see appsrvctl --help).\n";

constexpr const char kLogsHelp[] =
    "usage: appsrvctl logs [-n LINES] [-f] NAME\n"
    "\n"
    "Print the last lines of the log the runtime keeps for the stack NAME\n"
    "(the rotated file first where the lines reach back into it).\n"
    "\n"
    "  -n, --lines LINES   how many lines (default 10)\n"
    "  -f, --follow        then print lines as they come, across rotations,\n"
    "                      until interrupted\n"
    "\n"
    "Common options: --workdir DIR, --ssh HOST (see appsrvctl --help).\n";

constexpr const char kMetricsHelp[] =
    "usage: appsrvctl metrics\n"
    "\n"
    "Print the daemon's status snapshot in the Prometheus text format, for\n"
    "node_exporter's textfile collector: whether the daemon runs, the stacks\n"
    "by state, each stack's running flag, starts, exits and service restarts,\n"
    "and the requests served by kind. When the daemon does not run only\n"
    "appsrv_up 0 is printed, with status 0.\n"
    "\n"
    "Common options: --workdir DIR, --ssh HOST (see appsrvctl --help).\n";

ctl_action set_error(ctl_options* options, const char* format, const char* argument = "") {
  snprintf(options->error, sizeof options->error, format, argument);
  return options->action = CTL_USAGE;
}

bool is_option(const char* argument) { return argument[0] == '-' && argument[1] != '\0'; }

// "--name=value" or "--name value": the value, or null when it is missing.
// Advances `*index` past a separate value.
const char* option_value(int argc, char** argv, int* index, std::string_view name) {
  const char* argument = argv[*index];
  if (argument[name.size()] == '=') return argument + name.size() + 1;
  if (*index + 1 >= argc) return nullptr;
  *index += 1;
  return argv[*index];
}

bool matches(const char* argument, std::string_view name) {
  std::string_view text = argument;
  return text.substr(0, name.size()) == name && (text.size() == name.size() || text[name.size()] == '=');
}

// Decimal 1..65535, at most five digits (a leading zero allowed), written
// back without leading zeros.
bool parse_port(std::string_view text, char* port) {
  if (text.empty() || text.size() > 5) return false;
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  if (value < 1 || value > 65535) return false;
  snprintf(port, 8, "%u", value);
  return true;
}

bool parse_count(const char* text, uint64_t* count) {
  if (*text == '\0') return false;
  uint64_t value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9' || value > (UINT64_MAX - 9) / 10) return false;
    value = value * 10 + static_cast<uint64_t>(*p - '0');
  }
  *count = value;
  return true;
}

// A value that may not appear: empty, or beginning with "-" (which ssh
// would take for an option), or holding white space or control bytes.
bool unsafe_word(std::string_view text) {
  if (text.empty() || text[0] == '-') return true;
  for (char c : text)
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) return true;
  return false;
}

// What the options said beyond what goes straight into ctl_options.
struct given_flags {
  const char* address;
  const char* ssh;
  const char* workdir;
  bool lines;
  bool help;
  bool version;
};

// One option at argv[*index] (and its value, which moves *index on).
ctl_action take_option(int argc, char** argv, int* index, ctl_options* options, given_flags* given) {
  const char* argument = argv[*index];
  auto value_of = [&](std::string_view name) { return option_value(argc, argv, index, name); };
  if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
    given->help = true;
  } else if (strcmp(argument, "--version") == 0) {
    given->version = true;
  } else if (strcmp(argument, "--json") == 0) {
    options->json = 1;
  } else if (strcmp(argument, "--force") == 0) {
    options->force = 1;
  } else if (strcmp(argument, "--service") == 0) {
    options->service = 1;
  } else if (strcmp(argument, "-f") == 0 || strcmp(argument, "--follow") == 0) {
    options->follow = 1;
  } else if (matches(argument, "--address")) {
    given->address = value_of("--address");
    if (given->address == nullptr) return set_error(options, "option --address needs HOST:PORT");
  } else if (matches(argument, "--ssh")) {
    given->ssh = value_of("--ssh");
    if (given->ssh == nullptr) return set_error(options, "option --ssh needs [USER@]HOST[:PORT]");
  } else if (matches(argument, "--workdir")) {
    given->workdir = value_of("--workdir");
    if (given->workdir == nullptr || given->workdir[0] == '\0') return set_error(options, "option --workdir needs DIR");
  } else if (matches(argument, "--timeout")) {
    const char* value = value_of("--timeout");
    if (value == nullptr) return set_error(options, "option --timeout needs SECONDS");
    if (ctl_parse_timeout(value, &options->timeout_ms) != 0)
      return set_error(options, "invalid --timeout '%s': give positive seconds up to 2147483", value);
  } else if (strncmp(argument, "-n", 2) == 0 || matches(argument, "--lines")) {
    // -n N, -nN, --lines N, --lines=N
    bool joined = argument[1] == 'n' && argument[2] != '\0';
    const char* value = joined ? argument + 2 : argument[1] == 'n' ? value_of("-n") : value_of("--lines");
    if (value == nullptr) return set_error(options, "option -n needs LINES");
    if (!parse_count(value, &options->lines)) return set_error(options, "invalid -n '%s': give a number of lines", value);
    given->lines = true;
  } else {
    return set_error(options, "unknown option '%s'", argument);
  }
  return CTL_RUN;
}

// The address, the SSH host and the working directory, each from its flag,
// else its variable, else its default.
ctl_action settle_places(ctl_options* options, const ctl_environment& environment, const given_flags& given) {
  auto pick = [](const char* flag, const char* variable) {
    return flag != nullptr ? flag : variable != nullptr && variable[0] != '\0' ? variable : nullptr;
  };
  const char* address = pick(given.address, environment.address);
  const char* source = given.address != nullptr ? "--address" : "APPSRV_ADDRESS";
  if (address == nullptr) {
    address = ctl_default_address;
    source = "default address";
  }
  char reason[128];
  if (ctl_parse_address(address, &options->address, reason, sizeof reason) != 0) {
    snprintf(options->error, sizeof options->error, "invalid %s '%s': %s", source, address, reason);
    return options->action = CTL_USAGE;
  }
  if (const char* ssh = pick(given.ssh, environment.ssh)) {
    if (ctl_parse_ssh_host(ssh, &options->address.ssh, reason, sizeof reason) != 0) {
      snprintf(options->error, sizeof options->error, "invalid %s '%s': %s",
               given.ssh != nullptr ? "--ssh" : "APPSRV_SSH", ssh, reason);
      return options->action = CTL_USAGE;
    }
    snprintf(options->address.display, sizeof options->address.display, "%s via %s", options->address.endpoint,
             options->address.ssh.display);
  }
  options->workdir = pick(given.workdir, environment.workdir);
  if (options->workdir == nullptr) options->workdir = ctl_default_workdir;
  options->workdir_given = given.workdir != nullptr;
  return options->action = CTL_RUN;
}

// What applies to one command only, given to another.
ctl_action check_fit(ctl_options* options, const given_flags& given) {
  ctl_command command = options->command;
  if (options->json && command != CTL_LIST && command != CTL_STATUS)
    return set_error(options, "--json applies to list and status only");
  if (options->force && command != CTL_DELETE) return set_error(options, "--force applies to delete only");
  if (options->service && command != CTL_UPLOAD) return set_error(options, "--service applies to upload only");
  if ((options->follow || given.lines) && command != CTL_LOGS)
    return set_error(options, "-n and -f apply to logs only");
  if (given.workdir != nullptr && !reads_workdir(command))
    return set_error(options, "--workdir applies to status, logs and metrics only");
  return CTL_RUN;
}

}  // namespace

int ctl_parse_ssh_host(const char* text, ctl_ssh_host* ssh, char* error, uint64_t error_size) {
  *ssh = ctl_ssh_host{};
  auto refuse = [&](const char* reason) {
    snprintf(error, error_size, "%s", reason);
    return -1;
  };
  std::string_view view = text;
  size_t at = view.rfind('@');
  bool has_user = at != std::string_view::npos;
  std::string_view user = has_user ? view.substr(0, at) : std::string_view();
  std::string_view host = has_user ? view.substr(at + 1) : view;
  std::string_view port;
  bool has_port = false;
  bool bracketed = !host.empty() && host[0] == '[';
  if (bracketed) {
    size_t close = host.find(']');
    if (close == std::string_view::npos) return refuse("missing ']' after the IPv6 address");
    if (close + 1 < host.size() && host[close + 1] != ':') return refuse("only :PORT may follow ']'");
    has_port = close + 1 < host.size();
    if (has_port) port = host.substr(close + 2);
    host = host.substr(1, close - 1);
  } else if (size_t colon = host.find(':'); colon != std::string_view::npos) {
    if (host.find(':', colon + 1) != std::string_view::npos)
      return refuse("an IPv6 address needs brackets, as in [::1]:22");
    has_port = true;
    port = host.substr(colon + 1);
    host = host.substr(0, colon);
  }
  if (unsafe_word(host) || (has_user && unsafe_word(user)))
    return refuse("give [USER@]HOST[:PORT] without spaces, control characters or a leading '-'");
  if (user.size() + host.size() + 2 > sizeof ssh->destination) return refuse("too long");
  if (has_port && !parse_port(port, ssh->port)) return refuse("the port must be a number from 1 to 65535");
  std::string prefix = has_user ? std::string(user) + "@" : "";
  snprintf(ssh->destination, sizeof ssh->destination, "%s%.*s", prefix.c_str(), static_cast<int>(host.size()),
           host.data());
  snprintf(ssh->display, sizeof ssh->display, bracketed ? "%s[%.*s]%s%s" : "%s%.*s%s%s", prefix.c_str(),
           static_cast<int>(host.size()), host.data(), has_port ? ":" : "", ssh->port);
  return 0;
}

int ctl_parse_address(const char* text, ctl_address* address, char* error, uint64_t error_size) {
  *address = ctl_address{};
  std::string_view view = text;
  std::string_view host;
  std::string_view port;
  bool bracketed = !view.empty() && view[0] == '[';
  if (bracketed) {
    size_t close = view.find(']');
    if (close == std::string_view::npos) {
      snprintf(error, error_size, "missing ']' after the IPv6 address");
      return -1;
    }
    host = view.substr(1, close - 1);
    if (close + 1 >= view.size() || view[close + 1] != ':') {
      snprintf(error, error_size, "missing port after ']'");
      return -1;
    }
    port = view.substr(close + 2);
  } else {
    size_t colon = view.rfind(':');
    if (colon == std::string_view::npos) {
      snprintf(error, error_size, "missing port (HOST:PORT)");
      return -1;
    }
    host = view.substr(0, colon);
    port = view.substr(colon + 1);
    if (host.find(':') != std::string_view::npos) {
      snprintf(error, error_size, "an IPv6 address needs brackets, as in [::1]:7340");
      return -1;
    }
  }
  if (host.empty() || host.size() >= sizeof address->host) {
    snprintf(error, error_size, host.empty() ? "missing host" : "host too long");
    return -1;
  }
  memcpy(address->host, host.data(), host.size());
  address->host[host.size()] = '\0';
  in6_addr probe;
  if (inet_pton(bracketed ? AF_INET6 : AF_INET, address->host, &probe) != 1) {
    snprintf(error, error_size, bracketed ? "not a numeric IPv6 address" : "the host must be a numeric address");
    return -1;
  }
  if (!parse_port(port, address->port)) {
    snprintf(error, error_size, "the port must be a number from 1 to 65535");
    return -1;
  }
  snprintf(address->endpoint, sizeof address->endpoint, bracketed ? "[%s]:%s" : "%s:%s", address->host,
           address->port);
  snprintf(address->display, sizeof address->display, "%s", address->endpoint);
  return 0;
}

int ctl_parse_timeout(const char* text, uint32_t* milliseconds) {
  uint64_t whole = 0;
  uint64_t fraction = 0;
  const char* p = text;
  int digits = 0;
  for (; *p >= '0' && *p <= '9'; ++p, ++digits) {
    whole = whole * 10 + static_cast<uint64_t>(*p - '0');
    if (whole > 2147483) return -1;
  }
  if (*p == '.') {
    ++p;
    // Milliseconds are the finest unit poll() takes; further digits are dropped.
    uint64_t scale = 100;
    for (; *p >= '0' && *p <= '9'; ++p, ++digits) {
      fraction += scale * static_cast<uint64_t>(*p - '0');
      scale /= 10;
    }
  }
  if (*p != '\0' || digits == 0) return -1;
  uint64_t total = whole * 1000 + fraction;
  if (total == 0) return -1;
  *milliseconds = static_cast<uint32_t>(total);
  return 0;
}

ctl_action ctl_parse(int argc, char** argv, const ctl_environment& environment, ctl_options* options) {
  *options = ctl_options{};
  options->timeout_ms = ctl_default_timeout_ms;
  options->lines = ctl_default_lines;
  given_flags given{};
  bool options_ended = false;
  for (int i = 1; i < argc; ++i) {
    const char* argument = argv[i];
    if (!options_ended && strcmp(argument, "--") == 0) {
      options_ended = true;
      continue;
    }
    if (!options_ended && is_option(argument)) {
      if (take_option(argc, argv, &i, options, &given) != CTL_RUN) return CTL_USAGE;
      continue;
    }
    if (options->command == CTL_NONE) {
      const command_entry* entry = find_command(argument);
      if (entry == nullptr) return set_error(options, "unknown command '%s'", argument);
      options->command = entry->command;
      continue;
    }
    if (static_cast<int>(options->operands.size()) == entry_of(options->command).most)
      return set_error(options, "too many arguments for %s", ctl_command_name(options->command));
    options->operands.push_back(argument);
  }

  if (given.help) return options->action = CTL_HELP;
  if (given.version) return options->action = CTL_VERSION;
  if (options->command == CTL_NONE) return set_error(options, "missing command");
  if (static_cast<int>(options->operands.size()) < entry_of(options->command).operands)
    return set_error(options, "missing arguments for %s", ctl_command_name(options->command));
  if (check_fit(options, given) != CTL_RUN) return CTL_USAGE;
  return settle_places(options, environment, given);
}

const char* ctl_command_name(ctl_command command) {
  switch (command) {
    case CTL_LIST: return "list";
    case CTL_UPLOAD: return "upload";
    case CTL_DELETE: return "delete";
    case CTL_RENAME: return "rename";
    case CTL_SELECT: return "select";
    case CTL_STATUS: return "status";
    case CTL_LOGS: return "logs";
    case CTL_METRICS: return "metrics";
    case CTL_NONE: break;
  }
  return "appsrvctl";
}

const char* ctl_usage_line(ctl_command command) {
  switch (command) {
    case CTL_LIST: return "usage: appsrvctl list [--json]";
    case CTL_UPLOAD: return "usage: appsrvctl upload [--service] NAME FILE|DIR";
    case CTL_DELETE: return "usage: appsrvctl delete [--force] NAME";
    case CTL_RENAME: return "usage: appsrvctl rename OLD NEW";
    case CTL_SELECT: return "usage: appsrvctl select NAME";
    case CTL_STATUS: return "usage: appsrvctl status [--json] [NAME...]";
    case CTL_LOGS: return "usage: appsrvctl logs [-n LINES] [-f] NAME";
    case CTL_METRICS: return "usage: appsrvctl metrics";
    case CTL_NONE: break;
  }
  return "usage: appsrvctl [--address HOST:PORT] [--ssh HOST] [--timeout SECONDS] "
         "list|upload|delete|rename|select|status|logs|metrics ...";
}

const char* ctl_help_text(ctl_command command) {
  switch (command) {
    case CTL_LIST: return kListHelp;
    case CTL_UPLOAD: return kUploadHelp;
    case CTL_DELETE: return kDeleteHelp;
    case CTL_RENAME: return kRenameHelp;
    case CTL_SELECT: return kSelectHelp;
    case CTL_STATUS: return kStatusHelp;
    case CTL_LOGS: return kLogsHelp;
    case CTL_METRICS: return kMetricsHelp;
    case CTL_NONE: break;
  }
  return kProgramHelp;
}

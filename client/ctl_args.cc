#include "client/ctl_args.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <string_view>

namespace {

struct command_entry {
  std::string_view name;
  ctl_command command;
  int operands;
};

// Aliases sit next to the name they stand for.
constexpr command_entry kCommands[] = {
    {"list", CTL_LIST, 0},     {"ls", CTL_LIST, 0},       {"upload", CTL_UPLOAD, 2},
    {"delete", CTL_DELETE, 1}, {"rm", CTL_DELETE, 1},     {"rename", CTL_RENAME, 2},
    {"select", CTL_SELECT, 1}, {"attach", CTL_SELECT, 1},
};

const command_entry* find_command(std::string_view name) {
  for (const command_entry& entry : kCommands)
    if (entry.name == name) return &entry;
  return nullptr;
}

int operand_count(ctl_command command) {
  for (const command_entry& entry : kCommands)
    if (entry.command == command) return entry.operands;
  return 0;
}

constexpr const char kProgramHelp[] =
    "usage: appsrvctl [OPTIONS] COMMAND [ARGS]\n"
    "\n"
    "Manage the stacks of an appsrv daemon.\n"
    "\n"
    "Commands:\n"
    "  list, ls              print the names of all stacks, one per line\n"
    "  upload NAME FILE|DIR  deploy an image or a bundle as a new stack NAME\n"
    "  delete, rm NAME       delete the stack NAME\n"
    "  rename OLD NEW        give the stack OLD the name NEW\n"
    "  select, attach NAME   talk to the application of the stack NAME\n"
    "\n"
    "Options (before or after the command; \"--\" ends them):\n"
    "  --address HOST:PORT   the daemon's address, a numeric host; IPv6 as\n"
    "                        [ADDRESS]:PORT (default: $APPSRV_ADDRESS, else\n"
    "                        127.0.0.1:7340)\n"
    "  --timeout SECONDS     limit for connecting and for each wait on the\n"
    "                        daemon (default 30)\n"
    "  --help                show this help; COMMAND --help shows the command's\n"
    "  --version             show the version\n"
    "\n"
    "Exit status: 0 success, 1 failure reported by the daemon, 2 usage error,\n"
    "3 unknown name, 4 duplicate name, 5 daemon unreachable, timed out or\n"
    "closed without a reply.\n";

constexpr const char kListHelp[] =
    "usage: appsrvctl list [--json]\n"
    "\n"
    "Print the names of all stacks in ascending byte order, one per line.\n"
    "On a terminal, control bytes in names are shown escaped (\\xNN).\n"
    "Alias: ls.\n"
    "\n"
    "  --json   print one JSON array of strings instead\n"
    "\n"
    "Common options: --address HOST:PORT, --timeout SECONDS (see appsrvctl --help).\n";

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
    "Common options: --address HOST:PORT, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kDeleteHelp[] =
    "usage: appsrvctl delete [--force] NAME\n"
    "\n"
    "Delete the stack NAME with its store. Alias: rm.\n"
    "\n"
    "  --force  succeed when no stack has the name\n"
    "\n"
    "Common options: --address HOST:PORT, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kRenameHelp[] =
    "usage: appsrvctl rename OLD NEW\n"
    "\n"
    "Give the stack OLD the name NEW.\n"
    "\n"
    "Common options: --address HOST:PORT, --timeout SECONDS (see appsrvctl --help).\n";

constexpr const char kSelectHelp[] =
    "usage: appsrvctl select NAME\n"
    "\n"
    "Connect standard input and output to the application of the stack NAME\n"
    "until either side closes. An idle stack is started again and asked once\n"
    "more. Alias: attach.\n"
    "\n"
    "Common options: --address HOST:PORT, --timeout SECONDS (see appsrvctl --help).\n";

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

}  // namespace

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
  snprintf(address->display, sizeof address->display, bracketed ? "[%s]:%s" : "%s:%s", address->host,
           address->port);
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

ctl_action ctl_parse(int argc, char** argv, const char* environment_address, ctl_options* options) {
  *options = ctl_options{};
  options->timeout_ms = ctl_default_timeout_ms;
  const char* address_flag = nullptr;
  bool help = false;
  bool version = false;
  bool options_ended = false;
  int operands = 0;
  for (int i = 1; i < argc; ++i) {
    const char* argument = argv[i];
    if (!options_ended && strcmp(argument, "--") == 0) {
      options_ended = true;
      continue;
    }
    if (!options_ended && is_option(argument)) {
      if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
        help = true;
      } else if (strcmp(argument, "--version") == 0) {
        version = true;
      } else if (strcmp(argument, "--json") == 0) {
        options->json = 1;
      } else if (strcmp(argument, "--force") == 0) {
        options->force = 1;
      } else if (strcmp(argument, "--service") == 0) {
        options->service = 1;
      } else if (matches(argument, "--address")) {
        address_flag = option_value(argc, argv, &i, "--address");
        if (address_flag == nullptr) return set_error(options, "option --address needs HOST:PORT");
      } else if (matches(argument, "--timeout")) {
        const char* value = option_value(argc, argv, &i, "--timeout");
        if (value == nullptr) return set_error(options, "option --timeout needs SECONDS");
        if (ctl_parse_timeout(value, &options->timeout_ms) != 0)
          return set_error(options, "invalid --timeout '%s': give positive seconds up to 2147483", value);
      } else {
        return set_error(options, "unknown option '%s'", argument);
      }
      continue;
    }
    if (options->command == CTL_NONE) {
      const command_entry* entry = find_command(argument);
      if (entry == nullptr) return set_error(options, "unknown command '%s'", argument);
      options->command = entry->command;
      continue;
    }
    if (operands == operand_count(options->command))
      return set_error(options, "too many arguments for %s", ctl_command_name(options->command));
    options->operands[operands++] = argument;
  }

  if (help) return options->action = CTL_HELP;
  if (version) return options->action = CTL_VERSION;
  if (options->command == CTL_NONE) return set_error(options, "missing command");
  if (operands < operand_count(options->command))
    return set_error(options, "missing arguments for %s", ctl_command_name(options->command));
  if (options->json && options->command != CTL_LIST)
    return set_error(options, "--json applies to list only");
  if (options->force && options->command != CTL_DELETE)
    return set_error(options, "--force applies to delete only");
  if (options->service && options->command != CTL_UPLOAD)
    return set_error(options, "--service applies to upload only");

  const char* address = address_flag;
  const char* source = "--address";
  if (address == nullptr && environment_address != nullptr && environment_address[0] != '\0') {
    address = environment_address;
    source = "APPSRV_ADDRESS";
  }
  if (address == nullptr) {
    address = ctl_default_address;
    source = "default address";
  }
  char reason[128];
  if (ctl_parse_address(address, &options->address, reason, sizeof reason) != 0) {
    snprintf(options->error, sizeof options->error, "invalid %s '%s': %s", source, address, reason);
    return options->action = CTL_USAGE;
  }
  return options->action = CTL_RUN;
}

const char* ctl_command_name(ctl_command command) {
  switch (command) {
    case CTL_LIST: return "list";
    case CTL_UPLOAD: return "upload";
    case CTL_DELETE: return "delete";
    case CTL_RENAME: return "rename";
    case CTL_SELECT: return "select";
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
    case CTL_NONE: break;
  }
  return "usage: appsrvctl [--address HOST:PORT] [--timeout SECONDS] list|upload|delete|rename|select ...";
}

const char* ctl_help_text(ctl_command command) {
  switch (command) {
    case CTL_LIST: return kListHelp;
    case CTL_UPLOAD: return kUploadHelp;
    case CTL_DELETE: return kDeleteHelp;
    case CTL_RENAME: return kRenameHelp;
    case CTL_SELECT: return kSelectHelp;
    case CTL_NONE: break;
  }
  return kProgramHelp;
}

// The command line of appsrvctl: the subcommand with its operands, the
// options (before or after the subcommand, "--" ends them), the daemon's
// address (flag, then APPSRV_ADDRESS, then the default) and the time-out.
// Parsing writes nothing: the caller prints the texts it gets back.
#pragma once

#include <cstdint>

enum ctl_command : int {
  CTL_NONE = 0,  // no subcommand given (only meaningful with --help/--version)
  CTL_LIST,
  CTL_UPLOAD,
  CTL_DELETE,
  CTL_RENAME,
  CTL_SELECT,
};

// What the caller does after parsing.
enum ctl_action : int {
  CTL_RUN = 0,  // carry out `command`
  CTL_HELP,  // print ctl_help_text(command) on standard output, status 0
  CTL_VERSION,  // print the version line on standard output, status 0
  CTL_USAGE,  // print `error` and the usage line of `command`, status 2
};

// A numeric host and a port, resolved later by socket_address_tcp.
struct ctl_address {
  char host[64];  // without brackets
  char port[8];  // decimal, 1..65535
  char display[80];  // "host:port", or "[host]:port" for IPv6
};

struct ctl_options {
  ctl_action action;
  ctl_command command;
  const char* operands[2];  // borrowed from argv: NAME / NAME FILE|DIR / OLD NEW
  int json;  // list --json
  int force;  // delete --force
  int service;  // upload --service
  ctl_address address;
  uint32_t timeout_ms;  // for connecting and for each wait on the daemon
  char error[256];  // CTL_USAGE: the reason, without prefix or newline
};

constexpr const char* ctl_default_address = "127.0.0.1:7340";
constexpr uint32_t ctl_default_timeout_ms = 30000;

// Parses `argv` (argv[0] is the program). `environment_address` is the value
// of APPSRV_ADDRESS or null; it is looked at only when no --address is given.
// Always fills `options`; the result is its `action`.
ctl_action ctl_parse(int argc, char** argv, const char* environment_address, ctl_options* options);

// "HOST:PORT" or "[IPV6]:PORT" with a numeric host. 0, or -1 with the reason
// in `error` (`error_size` bytes).
int ctl_parse_address(const char* text, ctl_address* address, char* error, uint64_t error_size);

// Seconds as a positive decimal ("30", "0.5"), at most 2147483 s.
// 0 with `*milliseconds` set, or -1.
int ctl_parse_timeout(const char* text, uint32_t* milliseconds);

// The subcommand's name as the user types it ("list", ...; "appsrvctl" for
// CTL_NONE).
const char* ctl_command_name(ctl_command command);
// One line: "usage: appsrvctl ..." for the subcommand, or the program.
const char* ctl_usage_line(ctl_command command);
// The whole --help text of the subcommand, or of the program for CTL_NONE.
const char* ctl_help_text(ctl_command command);

constexpr const char* ctl_version = "0.1.0";

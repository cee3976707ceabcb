// The command line of appsrvctl: the subcommand with its operands, the
// options (before or after the subcommand, "--" ends them), the daemon's
// address (flag, then APPSRV_ADDRESS, then the default), the SSH host it is
// reached through (flag, then APPSRV_SSH, else none), the daemon's working
// directory (flag, then APPSRV_WORKDIR, then the default) and the time-out.
// Parsing writes nothing: the caller prints the texts it gets back.
#pragma once

#include <cstdint>
#include <vector>

enum ctl_command : int {
  CTL_NONE = 0,  // no subcommand given (only meaningful with --help/--version)
  CTL_LIST,
  CTL_UPLOAD,
  CTL_DELETE,
  CTL_RENAME,
  CTL_SELECT,
  CTL_STATUS,
  CTL_LOGS,
  CTL_METRICS,
};

// What the caller does after parsing.
enum ctl_action : int {
  CTL_RUN = 0,  // carry out `command`
  CTL_HELP,  // print ctl_help_text(command) on standard output, status 0
  CTL_VERSION,  // print the version line on standard output, status 0
  CTL_USAGE,  // print `error` and the usage line of `command`, status 2
};

// The SSH host through which the daemon is reached, from [USER@]HOST[:PORT].
struct ctl_ssh_host {
  char destination[256];  // what ssh is given: "USER@HOST", an IPv6 host without brackets
  char port[8];  // decimal, 1..65535; "" leaves the port to ssh
  char display[272];  // as written, with the port normalised
};

// A numeric host and a port, resolved later by socket_address_tcp (on the
// SSH host when there is one).
struct ctl_address {
  char host[64];  // without brackets
  char port[8];  // decimal, 1..65535
  char endpoint[80];  // "host:port", or "[host]:port" for IPv6
  char display[360];  // the endpoint, then " via SSH-HOST" when there is one
  ctl_ssh_host ssh;  // an empty destination: direct TCP
};

struct ctl_options {
  ctl_action action;
  ctl_command command;
  std::vector<const char*> operands;  // borrowed from argv: NAME / NAME FILE|DIR / OLD NEW / NAME...
  int json;  // list --json, status --json
  int force;  // delete --force
  int service;  // upload --service
  int follow;  // logs -f
  uint64_t lines;  // logs -n
  ctl_address address;
  const char* workdir;  // the daemon's working directory (status, logs, metrics)
  int workdir_given;  // by --workdir: passed on to appsrvctl on the SSH host
  uint32_t timeout_ms;  // for connecting and for each wait on the daemon
  char error[256];  // CTL_USAGE: the reason, without prefix or newline
};

constexpr const char* ctl_default_address = "127.0.0.1:7340";
constexpr const char* ctl_default_workdir = "/var/lib/appsrv";
constexpr uint32_t ctl_default_timeout_ms = 30000;
constexpr uint64_t ctl_default_lines = 10;

// The variables appsrvctl looks at, each null when unset; each is used only
// when its option is not given, and an empty one counts as unset.
struct ctl_environment {
  const char* address;  // APPSRV_ADDRESS
  const char* ssh;  // APPSRV_SSH
  const char* workdir;  // APPSRV_WORKDIR
};

// Parses `argv` (argv[0] is the program). Always fills `options`; the result
// is its `action`.
ctl_action ctl_parse(int argc, char** argv, const ctl_environment& environment, ctl_options* options);

// "HOST:PORT" or "[IPV6]:PORT" with a numeric host. 0, or -1 with the reason
// in `error` (`error_size` bytes). No SSH host.
int ctl_parse_address(const char* text, ctl_address* address, char* error, uint64_t error_size);

// "[USER@]HOST[:PORT]", IPv6 hosts in brackets. HOST is handed to ssh as it
// is (a name or an address); neither it nor USER may begin with "-". 0, or
// -1 with the reason in `error`.
int ctl_parse_ssh_host(const char* text, ctl_ssh_host* ssh, char* error, uint64_t error_size);

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

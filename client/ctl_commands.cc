#include "client/ctl_commands.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

#include "client/ctl_ssh.h"

namespace {

// One message line on standard error: "appsrvctl: ", the place (the daemon's
// address, or nothing), then the text.
void vreport(const char* place, const char* format, va_list arguments) {
  fprintf(stderr, "appsrvctl: %s%s", place, place[0] != '\0' ? ": " : "");
  vfprintf(stderr, format, arguments);
  fputc('\n', stderr);
  fflush(stderr);
}

}  // namespace

void ctl_report(const ctl_options* options, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vreport(options->address.display, format, arguments);
  va_end(arguments);
}

void ctl_report_local(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vreport("", format, arguments);
  va_end(arguments);
}

bool ctl_name_checked(const std::string& what, const char* name, const char* reason) {
  if (management_name_valid(name)) return true;
  ctl_report_local("%s: %s", what.c_str(), reason);
  return false;
}

bool ctl_send_all(int socket, const char* bytes, size_t size) {
  while (size > 0) {
    ssize_t put = send(socket, bytes, size, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    bytes += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

std::string ctl_quote(const char* name) { return "'" + ctl_terminal_escape(name) + "'"; }

int ctl_exchange(const ctl_options* options, const std::string& what, const std::string& request,
                 ctl_reply* reply) {
  socket_record sock{};
  ctl_fault fault{};
  int result = ctl_connect(&options->address, options->timeout_ms, &sock, &fault);
  if (result == 0) result = ctl_send_request(&sock, request, &fault);
  if (result == 0) result = ctl_receive_reply(&sock, options->timeout_ms, reply, &fault);
  socket_close(&sock);
  if (result == 0) return 0;
  return ctl_report_fault(options, what, fault);
}

int ctl_report_fault(const ctl_options* options, const std::string& what, const ctl_fault& fault) {
  ctl_report(options, "%s: %s", what.c_str(), fault.text.c_str());
  if (!fault.hint.empty()) fprintf(stderr, "appsrvctl: hint: %s\n", fault.hint.c_str());
  return fault.status;
}

int ctl_report_failure(const ctl_options* options, const std::string& what, const ctl_reply* reply) {
  ctl_report(options, "%s: %s", what.c_str(), ctl_terminal_escape(reply->reason).c_str());
  return management_outcome_of(reply->reason);
}

int ctl_run_list(const ctl_options* options) {
  ctl_reply reply{};
  int status = ctl_exchange(options, "list", ctl_encode_request(CTL_LIST, nullptr, nullptr, 0), &reply);
  if (status != 0) return status;
  if (reply.kind == CTL_REPLY_FAILURE) return ctl_report_failure(options, "list", &reply);
  if (reply.kind == CTL_REPLY_UPGRADE) {
    ctl_report(options, "list: unexpected reply");
    return CTL_FAILED;
  }
  if (options->json) {
    std::string out = "[";
    for (size_t i = 0; i < reply.names.size(); ++i) out += (i ? "," : "") + ctl_json_string(reply.names[i]);
    out += "]\n";
    fputs(out.c_str(), stdout);
  } else {
    // A pipe gets the names as they are; a person's terminal never gets raw
    // control bytes from a name.
    bool terminal = isatty(STDOUT_FILENO) == 1;
    for (const std::string& name : reply.names) {
      std::string line = (terminal ? ctl_terminal_escape(name) : name) + "\n";
      fwrite(line.data(), 1, line.size(), stdout);
    }
  }
  if (fflush(stdout) != 0) {
    ctl_report(options, "list: cannot write the names");
    return CTL_FAILED;
  }
  return CTL_OK;
}

int ctl_run_delete(const ctl_options* options) {
  const char* name = options->operands[0];
  std::string what = "delete " + ctl_quote(name);
  if (!ctl_name_checked(what, name)) return CTL_FAILED;
  ctl_reply reply{};
  int status = ctl_exchange(options, what, ctl_encode_request(CTL_DELETE, name, nullptr, 0), &reply);
  if (status != 0) return status;
  if (reply.kind == CTL_REPLY_FAILURE) {
    if (options->force && management_outcome_of(reply.reason) == MANAGEMENT_NAME_UNKNOWN) {
      ctl_report(options, "%s: already gone", what.c_str());
      return CTL_OK;
    }
    return ctl_report_failure(options, what, &reply);
  }
  ctl_report(options, "%s: deleted", what.c_str());
  return CTL_OK;
}

int ctl_run_rename(const ctl_options* options) {
  const char* old_name = options->operands[0];
  const char* new_name = options->operands[1];
  std::string what = "rename " + ctl_quote(old_name) + " to " + ctl_quote(new_name);
  if (!ctl_name_checked(what, old_name, MANAGEMENT_INVALID_OLD_NAME) ||
      !ctl_name_checked(what, new_name, MANAGEMENT_INVALID_NEW_NAME))
    return CTL_FAILED;
  ctl_reply reply{};
  int status = ctl_exchange(options, what, ctl_encode_request(CTL_RENAME, old_name, new_name, 0), &reply);
  if (status != 0) return status;
  if (reply.kind == CTL_REPLY_FAILURE) return ctl_report_failure(options, what, &reply);
  // The renamed stack took the connection over and said so with `upgrade`;
  // the rename is done and there is nothing to talk about.
  ctl_report(options, "%s: renamed", what.c_str());
  return CTL_OK;
}

int ctl_run(const ctl_options* options) {
  switch (options->command) {
    case CTL_LIST: return ctl_run_list(options);
    case CTL_UPLOAD: return ctl_run_upload(options);
    case CTL_DELETE: return ctl_run_delete(options);
    case CTL_RENAME: return ctl_run_rename(options);
    case CTL_SELECT: return ctl_run_select(options);
    case CTL_STATUS:
    case CTL_LOGS:
    case CTL_METRICS: break;
    case CTL_NONE: return CTL_USAGE_ERROR;
  }
  // The working directory these read is the SSH host's.
  if (options->address.ssh.destination[0] != '\0') return ctl_ssh_run(options);
  if (options->command == CTL_STATUS) return ctl_run_status(options);
  if (options->command == CTL_LOGS) return ctl_run_logs(options);
  return ctl_run_metrics(options);
}

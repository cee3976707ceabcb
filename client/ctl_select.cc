// select NAME: ask for the stack, and once it has taken the connection over
// (`upgrade`), join standard input and output to it until either side closes.
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/fs.h"
#include "base/runtime.h"
#include "client/ctl_commands.h"
#include "client/ctl_ssh.h"
#include "protocol/management.h"

namespace {

constexpr size_t kBuffer = 64 * 1024;
// An idle stack is started again by the select that found it idle; this gives
// its process time to come up before the one more attempt.
constexpr uint32_t kResurrectWait_ms = 1000;

// The last bytes of the session, enough to tell whether the stack ended it
// with the session-stopped line.
struct session_tail {
  std::string bytes;

  void add(const char* data, size_t size) {
    bytes.append(data, size);
    size_t keep = MANAGEMENT_SESSION_STOPPED.size();
    if (bytes.size() > keep) bytes.erase(0, bytes.size() - keep);
  }
  bool stopped_by_stack() const { return bytes == MANAGEMENT_SESSION_STOPPED; }
};

// The session is over: the application ended it (status 0), or the stack
// stopped it under the client, which then hears why.
int session_end(const ctl_options* options, const std::string& what, const session_tail& tail) {
  if (tail.stopped_by_stack()) {
    ctl_report(options, "%s: the stack stopped the session (the daemon is shutting down, or the stack was deleted)",
               what.c_str());
    return CTL_UNREACHABLE;
  }
  // Through SSH the stream also ends when ssh loses the host.
  ctl_fault fault{CTL_OK, ""};
  ctl_ssh_explain(&fault);
  return fault.status == CTL_OK ? CTL_OK : ctl_report_fault(options, what, fault);
}

// Copies both ways until the stack closes the connection or standard output
// goes away. End of standard input is passed on as a half close, so the
// application sees it and can still answer.
int join(const ctl_options* options, const std::string& what, int connection) {
  char buffer[kBuffer];
  session_tail tail;
  bool input_open = true;
  bool sending = true;  // false once the stack stopped taking bytes
  for (;;) {
    pollfd entries[2] = {{connection, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    int ready = poll(entries, input_open ? 2 : 1, -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      ctl_report(options, "%s: %s", what.c_str(), strerror(errno));
      return CTL_FAILED;
    }
    if (entries[0].revents != 0) {
      ssize_t got = recv(connection, buffer, sizeof buffer, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        ctl_report(options, "%s: connection lost: %s", what.c_str(), strerror(errno));
        return CTL_UNREACHABLE;
      }
      if (got == 0) return session_end(options, what, tail);
      tail.add(buffer, static_cast<size_t>(got));
      if (fs_write_all(STDOUT_FILENO, buffer, static_cast<size_t>(got)) != 0) return CTL_OK;
    }
    if (input_open && entries[1].revents != 0) {
      ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got > 0 && sending) sending = ctl_send_all(connection, buffer, static_cast<size_t>(got));
      if (got <= 0) {
        input_open = false;
        shutdown(connection, SHUT_WR);
      }
    }
  }
}

}  // namespace

int ctl_run_select(const ctl_options* options) {
  const char* name = options->operands[0];
  std::string what = "select " + ctl_quote(name);
  if (!ctl_name_checked(what, name)) return CTL_FAILED;
  std::string request = ctl_encode_request(CTL_SELECT, name, nullptr, 0);
  for (int attempt = 0;; ++attempt) {
    socket_record sock{};
    ctl_fault fault{};
    ctl_reply reply{};
    int result = ctl_connect(&options->address, options->timeout_ms, &sock, &fault);
    if (result == 0) result = ctl_send_request(&sock, request, &fault);
    if (result == 0) result = ctl_receive_reply(&sock, options->timeout_ms, &reply, &fault);
    if (result != 0) {
      socket_close(&sock);
      return ctl_report_fault(options, what, fault);
    }
    if (reply.kind == CTL_REPLY_UPGRADE) {
      int status = join(options, what, sock.descriptor);
      socket_close(&sock);
      return status;
    }
    socket_close(&sock);
    if (reply.kind != CTL_REPLY_FAILURE) {
      ctl_report(options, "%s: unexpected reply", what.c_str());
      return CTL_FAILED;
    }
    if (attempt > 0 || !management_worth_repeating(reply.reason)) return ctl_report_failure(options, what, &reply);
    ctl_report(options, "%s: %s, asking again", what.c_str(), reply.reason.c_str());
    runtime_sleep(kResurrectWait_ms);
  }
}

// The direct transport: a TCP connection to the daemon's address, made
// without blocking so that the time-out bounds it.
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/ctl_wire.h"

namespace {

int fail(ctl_fault* fault, ctl_status status, std::string text) {
  fault->status = status;
  fault->text = std::move(text);
  return -1;
}

// A refused connection almost always means that no daemon runs at that
// address, which the system's text alone does not tell a new user.
int fail_to_connect(ctl_fault* fault, int error) {
  fail(fault, CTL_UNREACHABLE, std::string("cannot connect: ") + strerror(error));
  if (error == ECONNREFUSED)
    fault->hint = "no daemon is listening there; start one with tools/run-daemon.sh (or systemctl start appsrv), "
                  "or give the address of a running one with --address";
  return -1;
}

}  // namespace

int ctl_tcp_connect(const ctl_address* address, uint32_t timeout_ms, socket_record* sock, ctl_fault* fault) {
  socket_address target{};
  if (socket_address_tcp(address->host, address->port, &target) != 0)
    return fail(fault, CTL_UNREACHABLE, std::string("cannot resolve: ") + socket_strerror(nullptr));
  // socket_open connects without a time-out, so the connection is made here
  // without blocking and then handed to the socket family.
  uint16_t family;
  memcpy(&family, target.storage, sizeof family);
  int descriptor = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return fail(fault, CTL_UNREACHABLE, std::string("cannot connect: ") + strerror(errno));
  int result = connect(descriptor, reinterpret_cast<const sockaddr*>(target.storage),
                       static_cast<socklen_t>(target.length));
  if (result != 0 && errno != EINPROGRESS) {
    int error = errno;
    close(descriptor);
    return fail_to_connect(fault, error);
  }
  if (result != 0) {
    int ready = ctl_wait(descriptor, POLLOUT, timeout_ms);
    int error = errno;
    if (ready <= 0) {
      close(descriptor);
      if (ready == 0) return fail(fault, CTL_UNREACHABLE, "timed out connecting after " + ctl_seconds(timeout_ms));
      return fail(fault, CTL_UNREACHABLE, std::string("cannot connect: ") + strerror(error));
    }
    socklen_t length = sizeof error;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error != 0) {
      close(descriptor);
      return fail_to_connect(fault, error);
    }
  }
  // Adopting makes the descriptor blocking again.
  if (socket_load(descriptor, sock) != 0) {
    close(descriptor);
    return fail(fault, CTL_UNREACHABLE, std::string("cannot connect: ") + socket_strerror(nullptr));
  }
  return 0;
}


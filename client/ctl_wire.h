// appsrvctl's side of the management protocol: connecting with a time-out
// over the chosen transport (TCP, or SSH), sending one framed request made
// with the request module, and reading one framed reply with the reply
// module.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/socket.h"
#include "client/ctl_args.h"
#include "client/ctl_text.h"

enum ctl_reply_kind : int {
  CTL_REPLY_FAILURE = 0,
  CTL_REPLY_NAMES,  // success with data
  CTL_REPLY_EMPTY,  // success with empty
  CTL_REPLY_UPGRADE,  // the stack took the connection over
};

struct ctl_reply {
  ctl_reply_kind kind;
  std::string reason;  // CTL_REPLY_FAILURE
  std::vector<std::string> names;  // CTL_REPLY_NAMES, in the daemon's (ascending) order
};

// What went wrong when a call below fails: the exit status to end with, a
// text such as "cannot connect: Connection refused" (no prefix, no newline),
// and, where a person needs more than the system's text to act on it, a hint
// saying what to do (empty otherwise).
struct ctl_fault {
  ctl_status status;
  std::string text;
  std::string hint{};
};

// Opens a connection to the daemon at `address`: through ssh -W when the
// address has an SSH host (ctl_ssh.cc), else over TCP (ctl_tcp.cc), giving up
// after `timeout_ms`. Either carries the protocol alike. The socket is
// blocking and close-on-exec; the caller closes it.
int ctl_connect(const ctl_address* address, uint32_t timeout_ms, socket_record* sock, ctl_fault* fault);
int ctl_tcp_connect(const ctl_address* address, uint32_t timeout_ms, socket_record* sock, ctl_fault* fault);

// The encoded request (no frame). `first` and `second` are the operands in the
// command line's order: NAME for delete and select, NAME for upload (with
// `image_size`, at least 1), OLD and NEW for rename.
std::string ctl_encode_request(ctl_command command, const char* first, const char* second, int64_t image_size);

// Sends the request as one frame.
int ctl_send_request(socket_record* sock, const std::string& payload, ctl_fault* fault);

// Waits up to `timeout_ms` for one reply frame and parses it. Faults: time-out
// or a connection closed without a reply (CTL_UNREACHABLE), a frame the reply
// module rejects (CTL_FAILED).
int ctl_receive_reply(socket_record* sock, uint32_t timeout_ms, ctl_reply* reply, ctl_fault* fault);

// Waits until `descriptor` is ready for `events` (poll flags), at most
// `timeout_ms`; retries after signals with the time that is left. The ready
// events, 0 on time-out, -1 on failure (errno).
int ctl_wait(int descriptor, short events, uint32_t timeout_ms);

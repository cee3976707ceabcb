// The texts appsrvctl writes: its exit statuses (the management
// vocabulary's outcomes), names escaped for JSON and for a terminal, the
// upload progress line and the sizes and durations people read.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "protocol/management.h"

// Exit statuses of appsrvctl: the management vocabulary's outcomes.
enum ctl_status : int {
  CTL_OK = MANAGEMENT_OK,
  CTL_FAILED = MANAGEMENT_FAILED,  // a failure reply without a status of its own
  CTL_USAGE_ERROR = MANAGEMENT_USAGE,
  CTL_UNKNOWN_NAME = MANAGEMENT_NAME_UNKNOWN,
  CTL_DUPLICATE_NAME = MANAGEMENT_NAME_TAKEN,
  CTL_UNREACHABLE = MANAGEMENT_UNREACHABLE,  // cannot connect, timed out, or closed without a reply
};

// 1 when the text is valid UTF-8 (no overlong forms, no surrogates).
int ctl_utf8_valid(std::string_view text);

// A JSON string literal, quotes included. Valid UTF-8 passes through; control
// bytes, quotes and backslashes are escaped; a byte that is not part of valid
// UTF-8 becomes \ufffd, so the output is always valid JSON.
std::string ctl_json_string(std::string_view text);

// The text safe for a terminal: control bytes (C0, DEL, and the UTF-8 forms of
// the C1 controls) become \xNN and a backslash becomes \\, so that nothing a
// name holds can move the cursor or change the terminal's state.
std::string ctl_terminal_escape(std::string_view text);

// One progress line (no carriage return, no newline), for example
// "  12.0 MiB / 40.0 MiB  30%  4.0 MiB/s  0:07 left". `elapsed_ms` is the time
// since the first byte went out; the rate and time left read "--" until
// some time has passed.
std::string ctl_progress_line(uint64_t sent, uint64_t total, int64_t elapsed_ms);

// A byte count for people: "512 B", "1.5 KiB", "12.0 MiB", "2.0 GiB".
std::string ctl_human_bytes(uint64_t bytes);

// A time-out as people read it: "30 s", "0.5 s", "1.25 s".
std::string ctl_seconds(uint32_t milliseconds);

// An uptime as people read it, in its two largest units: "5s", "3m12s",
// "2h05m", "3d04h".
std::string ctl_human_duration(uint64_t seconds);

// The management vocabulary that the daemon, the client and the stack
// runtime share: what makes a stack name, every failure reason a client can
// be sent, what each reason means to a client (the client's exit statuses),
// and the line with which a stack ends a client's session when it stops.
// Each text is spelled here once; everything else refers to these names.
#pragma once

#include <cstdint>
#include <string_view>

// ---- names -----------------------------------------------------------------

// A stack name has 1 to this many bytes.
constexpr uint64_t MANAGEMENT_NAME_MAX = 1023;

// True when `name` is a valid stack name: 1 to MANAGEMENT_NAME_MAX bytes, none
// of them bell, backspace, form feed, line feed, carriage return, tab or
// vertical tab, nor a zero byte (which would end the name early on the
// daemon's side). Every other byte is allowed; a name is never a path.
bool management_name_valid(std::string_view name);

// ---- failure reasons ---------------------------------------------------------

// The request handler's own.
inline constexpr const char* MANAGEMENT_INVALID_NAME = "invalid name";
inline constexpr const char* MANAGEMENT_INVALID_OLD_NAME = "invalid old name";
inline constexpr const char* MANAGEMENT_INVALID_NEW_NAME = "invalid new name";
inline constexpr const char* MANAGEMENT_UNKNOWN_NAME = "unknown name";
inline constexpr const char* MANAGEMENT_DUPLICATE_NAME = "duplicate name";
inline constexpr const char* MANAGEMENT_IMAGE_NOT_LOADED = "image could not be loaded";
inline constexpr const char* MANAGEMENT_IMAGE_TOO_LARGE = "image too large";
// The stack manager's last errors, sent as they are.
inline constexpr const char* MANAGEMENT_KEY_NOT_UNIQUE = "`key` not unique";
inline constexpr const char* MANAGEMENT_INVALID_STATE = "invalid stack state";
inline constexpr const char* MANAGEMENT_SPAWN_CHILD = "spawn child";
inline constexpr const char* MANAGEMENT_MKDIR_STACK_PATH = "mkdir stack path";
inline constexpr const char* MANAGEMENT_MKDIR_STORE_PATH = "mkdir store path";
inline constexpr const char* MANAGEMENT_STORE_NAME_TAG = "store name-tag";
inline constexpr const char* MANAGEMENT_STORE_IMAGE = "store image";
inline constexpr const char* MANAGEMENT_NAME_TAG_NOT_FOUND = "name-tag not found";
// An idle stack was started again instead of taking the connection.
inline constexpr const char* MANAGEMENT_RESURRECTING = "resurrecting dead stack";
// A deploying stack's own refusals; an image's reason goes on after the prefix.
inline constexpr const char* MANAGEMENT_INVALID_IMAGE_PREFIX = "invalid image: ";
inline constexpr const char* MANAGEMENT_NO_CONTROL_SOCKET = "control socket unavailable";
inline constexpr const char* MANAGEMENT_NO_DEPLOYED_MARKER = "deployed marker not written";

// ---- what a reason means to a client ----------------------------------------

// The client's exit statuses.
enum management_outcome : int {
  MANAGEMENT_OK = 0,
  MANAGEMENT_FAILED = 1,  // a failure without an outcome of its own
  MANAGEMENT_USAGE = 2,  // the client was used wrongly; nothing was sent
  MANAGEMENT_NAME_UNKNOWN = 3,  // "unknown name"
  MANAGEMENT_NAME_TAKEN = 4,  // "duplicate name"
  MANAGEMENT_UNREACHABLE = 5,  // no daemon answered, or it went away
};

// The outcome a failure reply with `reason` ends a client with.
management_outcome management_outcome_of(std::string_view reason);
// True when the same request is worth sending once more after a moment: the
// stack was idle and has just been started again.
bool management_worth_repeating(std::string_view reason);

// ---- sessions -----------------------------------------------------------------

// The last line a stack writes on a selected connection whose handler it
// stopped because the stack itself is stopping (the daemon shuts down, or
// the stack is deleted); a client tells it from the application's own end.
inline constexpr std::string_view MANAGEMENT_SESSION_STOPPED = "appsrv: session ended: the stack is stopping\n";

#include "appsrv/status.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <concepts>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "base/fs.h"
#include "base/runtime.h"
#include "base/text.h"
#include "stackman/stackman.h"

appsrv_counters appsrv_counted;

namespace {

constexpr const char* kSnapshotPath = "./private/status.json";
constexpr const char* kTemporaryPath = "./private/.status.json.tmp";
constexpr const char* kStateNames[] = {"idle", "running", "stopping", "undeployed"};
// A snapshot costs more to write than a request costs to serve (on ext4 a
// new file alone is tens of microseconds), so during a burst of requests the
// daemon looks at most this often.
constexpr int64_t kLookMilliseconds = 100;

struct daemon_facts {
  int pid;
  int64_t started;
  char address[INET6_ADDRSTRLEN];
  uint16_t port;
};

daemon_facts facts;
int64_t looked;  // when the last snapshot was built, on the monotonic clock
bool looked_ever;
bool owed;  // a pass was not looked at
// Both buffers keep their storage from pass to pass: a pass that changes
// nothing costs no allocation and no write.
std::string building;
std::string written;

constexpr char kHexDigits[] = "0123456789abcdef";

// The exact bytes, two lower-case hexadecimal digits each.
void append_hex(std::string& out, std::string_view bytes) {
  out += '"';
  for (unsigned char c : bytes) {
    out += kHexDigits[c >> 4];
    out += kHexDigits[c & 0xf];
  }
  out += '"';
}

template <std::integral Number>
void append_number(std::string& out, Number value) {
  char digits[24];
  auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

// `"key":`, after a comma unless it opens its object.
void append_key(std::string& out, const char* key) {
  if (out.back() != '{') out += ',';
  out += '"';
  out += key;
  out += "\":";
}

void append_member(std::string& out, const char* key, std::string_view text) {
  append_key(out, key);
  text_append_json(&out, text);
}

template <std::integral Number>
void append_member(std::string& out, const char* key, Number value) {
  append_key(out, key);
  append_number(out, value);
}

void append_daemon(std::string& out, bool stop_requested) {
  out += "\"daemon\":{";
  append_member(out, "pid", facts.pid);
  append_member(out, "started", facts.started);
  append_member(out, "address", facts.address);
  append_member(out, "port", facts.port);
  append_member(out, "phase", stop_requested ? "stop_requested" : "normal");
  append_member(out, "version", APPSRV_VERSION);
  out += '}';
}

void append_last_exit(std::string& out, const stackman_figures& figures) {
  append_key(out, "last_exit");
  if (!figures.exited) {
    out += "null";
    return;
  }
  out += '{';
  append_member(out, "code", figures.last_exit.code);
  append_member(out, "text", figures.last_exit.text);
  append_member(out, "at", figures.last_exit.at);
  out += '}';
}

void append_stack(std::string& out, stackman_stack* stack) {
  const stackman_figures& figures = stack->figures;
  out += '{';
  append_member(out, "key", stack->key);
  append_member(out, "name", stack->name);
  append_key(out, "name_hex");
  append_hex(out, stack->name);
  append_member(out, "state", stack->state < std::size(kStateNames) ? kStateNames[stack->state] : "unknown");
  append_key(out, "pid");
  if (stack->job != nullptr) append_number(out, stack->job->pid);
  else out += "null";
  append_key(out, "started");
  if (stack->job != nullptr) append_number(out, figures.started);
  else out += "null";
  append_member(out, "image_bytes", figures.image_bytes);
  // The stack's own program makes the marker, at a moment the daemon does
  // not see, so every snapshot looks again.
  append_key(out, "deployed");
  out += fs_exists(&stack->deployed_path) ? "true" : "false";
  append_member(out, "starts", figures.starts);
  append_member(out, "exits", figures.exits);
  append_last_exit(out, figures);
  out += '}';
}

// Uploads that arrived in full and started no stack were refused (a name
// that is invalid or taken, or the stack manager's failure); to those come
// the deployments whose program never created the deployed marker.
uint64_t deploy_failures() {
  stackman_deployments deployments = stackman_deployment_counts();
  uint64_t uploads = appsrv_counted.uploads;
  uint64_t refused = uploads > deployments.started ? uploads - deployments.started : 0;
  return refused + deployments.unfinished;
}

void append_counters(std::string& out) {
  out += "\"counters\":{";
  append_member(out, "connections", appsrv_counted.connections);
  append_member(out, "uploads", appsrv_counted.uploads);
  append_member(out, "deploy_failures", deploy_failures());
  append_member(out, "deletes", appsrv_counted.deletes);
  append_member(out, "renames", appsrv_counted.renames);
  append_member(out, "selects", appsrv_counted.selects);
  out += '}';
}

// One line for the daemon, one per stack (newest first), one for the
// counters: whole, the file reads well with the usual line tools too.
void build(std::string& out, bool stop_requested) {
  out.clear();
  out += '{';
  append_daemon(out, stop_requested);
  out += ",\n\"stacks\":[";
  stackman_iter iterator{};
  for (stackman_stack* s = stackman_iter_begin(&iterator); s != nullptr; s = stackman_iter_move(&iterator)) {
    if (out.back() != '[') out += ',';
    out += '\n';
    append_stack(out, s);
  }
  out += "],\n";
  append_counters(out);
  out += "}\n";
}

// Derived state, so no fsync: after a crash the next daemon writes it anew.
// A rename over the old snapshot would make ext4 flush the new one at once
// (its guard for programs that replace files without fsync); exchanging the
// two names and removing the old one does not, so a snapshot replaced before
// writeback comes round never reaches the disk.
void replace_snapshot(std::string_view text) {
  int descriptor = open(kTemporaryPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) return;
  bool whole = fs_write_all(descriptor, text.data(), text.size()) == 0;
  if (close(descriptor) != 0) whole = false;
  if (whole && renameat2(AT_FDCWD, kTemporaryPath, AT_FDCWD, kSnapshotPath, RENAME_EXCHANGE) == 0) {
    unlink(kTemporaryPath);
    return;
  }
  // The first snapshot has nothing to exchange with, and some file systems
  // cannot exchange names at all: a plain rename then.
  bool renamable = errno == ENOENT || errno == EINVAL || errno == ENOSYS;
  if (!whole || !renamable || rename(kTemporaryPath, kSnapshotPath) != 0) unlink(kTemporaryPath);
}

}  // namespace

void appsrv_status_open(const socket_record* listener, int64_t started) {
  facts.pid = runtime_pid();
  facts.started = started;
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  if (getsockname(listener->descriptor, reinterpret_cast<sockaddr*>(&bound), &length) != 0) return;
  if (bound.ss_family == AF_INET6) {
    auto* six = reinterpret_cast<sockaddr_in6*>(&bound);
    inet_ntop(AF_INET6, &six->sin6_addr, facts.address, sizeof facts.address);
    facts.port = ntohs(six->sin6_port);
  } else {
    auto* four = reinterpret_cast<sockaddr_in*>(&bound);
    inet_ntop(AF_INET, &four->sin_addr, facts.address, sizeof facts.address);
    facts.port = ntohs(four->sin_port);
  }
}

void appsrv_status_refresh(bool stop_requested) {
  int64_t now = runtime_getclock();
  owed = looked_ever && now - looked < kLookMilliseconds;
  if (owed) return;
  looked = now;
  looked_ever = true;
  build(building, stop_requested);
  if (building == written) return;
  replace_snapshot(building);
  written.swap(building);
}

int32_t appsrv_status_wait(int32_t longest) {
  if (!owed) return longest;
  int64_t left = looked + kLookMilliseconds - runtime_getclock();
  return static_cast<int32_t>(std::clamp<int64_t>(left, 0, longest));
}

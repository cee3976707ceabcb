#include "client/ctl_snapshot.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/ctl_commands.h"

namespace {

using json = nlohmann::ordered_json;

// Far above a thousand stacks with the longest names.
constexpr int64_t kSnapshotLimit = 64 << 20;
constexpr int64_t kRuntimeLimit = 64 << 10;
constexpr int64_t kProcLimit = 4096;
// The start /proc gives is a count of clock ticks after a boot time in whole
// seconds: a little slack keeps the daemon from looking younger than itself.
constexpr int64_t kStartTolerance_s = 5;

// The whole regular file at `path` when it holds at most `limit` bytes,
// with the time of its last change. Opened without blocking, so that a
// fifo put in its place cannot hold appsrvctl.
bool read_bounded(const std::string& path, int64_t limit, std::string* text, int64_t* changed = nullptr) {
  int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return false;
  struct stat info{};
  bool fits = fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode);
  if (fits && info.st_size > limit) errno = EFBIG;
  fits = fits && info.st_size <= limit;
  text->clear();
  char buffer[65536];
  while (fits) {
    ssize_t got = read(descriptor, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      fits = got == 0;
      break;
    }
    text->append(buffer, static_cast<size_t>(got));
    if (static_cast<int64_t>(text->size()) > limit) fits = false;
  }
  if (changed != nullptr) *changed = info.st_mtim.tv_sec;
  close(descriptor);
  return fits;
}

// When process `pid` started, in unix seconds: its start in clock ticks
// after boot (field 22 of its stat, counted after the command, which may
// hold anything) plus the boot time. -1 when it is gone or a zombie.
int64_t process_start(int64_t pid) {
  std::string stat;
  if (!read_bounded("/proc/" + std::to_string(pid) + "/stat", kProcLimit, &stat)) return -1;
  size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  char state = 0;
  unsigned long long ticks = 0;
  if (sscanf(stat.c_str() + close + 1,
             " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu", &state, &ticks) != 2 ||
      state == 'Z' || state == 'X')
    return -1;
  std::string system;
  if (!read_bounded("/proc/stat", 1 << 20, &system)) return -1;
  size_t at = system.find("\nbtime ");
  long hertz = sysconf(_SC_CLK_TCK);
  if (at == std::string::npos || hertz <= 0) return -1;
  return atoll(system.c_str() + at + 7) + static_cast<int64_t>(ticks / static_cast<unsigned long long>(hertz));
}

// The pid is alive, belongs to an appsrv, and that process already existed
// when the snapshot's daemon started: a pid handed out again after the
// daemon ended belongs to a process made later. The process may well be
// older than the daemon's start, since whatever started the daemon may have
// run for a while (building it, say) before it executed the daemon.
bool daemon_runs(int64_t pid, int64_t started) {
  if (pid <= 0 || pid > INT32_MAX) return false;
  std::string command;
  if (!read_bounded("/proc/" + std::to_string(pid) + "/comm", kProcLimit, &command) || command != "appsrv\n")
    return false;
  int64_t start = process_start(pid);
  return start >= 0 && start <= started + kStartTolerance_s;
}

std::string local_time(int64_t seconds) {
  time_t value = static_cast<time_t>(seconds);
  tm parts{};
  char text[64];
  if (localtime_r(&value, &parts) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &parts) == 0)
    return std::to_string(seconds);
  return text;
}

bool is_key(const std::string& key) {
  if (key.empty() || key.size() > 64) return false;
  for (char c : key)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

enum member_kind { kNumber, kText, kObject };

// Copies the member when it has the kind given, or is null.
void keep(const json& from, json* to, const char* key, member_kind kind) {
  auto found = from.find(key);
  if (found == from.end()) return;
  bool fits = found->is_null() || (kind == kNumber && found->is_number_integer()) ||
              (kind == kText && found->is_string()) || (kind == kObject && found->is_object());
  if (fits) (*to)[key] = *found;
}

json service_state(const json& service) {
  json kept = json::object();
  keep(service, &kept, "pid", kNumber);
  keep(service, &kept, "state", kText);
  keep(service, &kept, "restarts", kNumber);
  keep(service, &kept, "started", kNumber);
  auto last_exit = service.find("last_exit");
  if (last_exit != service.end() && last_exit->is_object()) {
    json end = json::object();
    keep(*last_exit, &end, "code", kNumber);
    keep(*last_exit, &end, "text", kText);
    keep(*last_exit, &end, "at", kNumber);
    kept["last_exit"] = end;
  } else if (last_exit != service.end() && last_exit->is_null()) {
    kept["last_exit"] = nullptr;
  }
  return kept;
}

}  // namespace

int64_t ctl_json_number(const json& object, const char* key, int64_t fallback) {
  auto found = object.find(key);
  return found != object.end() && found->is_number_integer() ? found->get<int64_t>() : fallback;
}

std::string ctl_json_text(const json& object, const char* key) {
  auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::string ctl_stack_name(const json& stack) {
  std::string hex = ctl_json_text(stack, "name_hex");
  std::string name;
  auto digit = [](char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1; };
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    int high = digit(hex[i]);
    int low = digit(hex[i + 1]);
    if (high < 0 || low < 0) return ctl_json_text(stack, "name");
    name += static_cast<char>(high * 16 + low);
  }
  return hex.size() % 2 == 0 ? name : ctl_json_text(stack, "name");
}

int ctl_snapshot_read(const char* workdir, ctl_snapshot* snapshot, std::string* problem) {
  std::string text;
  if (!read_bounded(std::string(workdir) + "/private/status.json", kSnapshotLimit, &text, &snapshot->written)) {
    *problem = std::string("no status snapshot: private/status.json: ") + strerror(errno);
    return -1;
  }
  snapshot->document = json::parse(text, nullptr, false);
  json& document = snapshot->document;
  if (!document.is_object() || !document["daemon"].is_object() || !document["stacks"].is_array()) {
    *problem = "private/status.json is not a status snapshot";
    return -1;
  }
  json stacks = json::array();
  for (const json& stack : document["stacks"])
    if (stack.is_object()) stacks.push_back(stack);
  document["stacks"] = stacks;
  if (!document["counters"].is_object()) document["counters"] = json::object();
  const json& daemon = document["daemon"];
  snapshot->live = daemon_runs(ctl_json_number(daemon, "pid"), ctl_json_number(daemon, "started"));
  return 0;
}

int ctl_snapshot_read_live(const ctl_options* options, ctl_snapshot* snapshot) {
  std::string problem;
  if (ctl_snapshot_read(options->workdir, snapshot, &problem) != 0) {
    ctl_report_local("%s: %s", options->workdir, problem.c_str());
    fputs("appsrvctl: hint: give the daemon's working directory with --workdir or APPSRV_WORKDIR\n", stderr);
    return CTL_UNREACHABLE;
  }
  if (!snapshot->live) {
    ctl_report_local("%s: appsrv is not running (last snapshot from %s)", options->workdir,
                     local_time(snapshot->written).c_str());
    return CTL_UNREACHABLE;
  }
  return 0;
}

json ctl_runtime_state(const char* workdir, const json& stack) {
  std::string key = ctl_json_text(stack, "key");
  int64_t started = ctl_json_number(stack, "started", -1);
  if (!is_key(key) || started < 0) return nullptr;
  std::string text;
  int64_t changed = 0;
  if (!read_bounded(std::string(workdir) + "/stacks/" + key + "/runtime.json", kRuntimeLimit, &text, &changed) ||
      changed < started)
    return nullptr;
  json reported = json::parse(text, nullptr, false);
  if (!reported.is_object()) return nullptr;
  json kept = json::object();
  keep(reported, &kept, "mode", kText);
  keep(reported, &kept, "handlers", kNumber);
  auto service = reported.find("service");
  if (service != reported.end() && service->is_object()) kept["service"] = service_state(*service);
  else if (service != reported.end() && service->is_null()) kept["service"] = nullptr;
  return kept;
}

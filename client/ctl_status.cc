// status [NAME...]: the stacks as the daemon's snapshot shows them, with what
// their runtimes report, as a table for people or as JSON for scripts.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "client/ctl_commands.h"
#include "client/ctl_snapshot.h"

namespace {

using json = nlohmann::ordered_json;

constexpr size_t kKeyShown = 12;

struct row {
  std::string cells[7];  // NAME, STATE, PID, UPTIME, RESTARTS, IMAGE, KEY
};

// Columns on a terminal: UTF-8 continuation bytes take no room of their own.
size_t width_of(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text) width += (c & 0xc0) != 0x80;
  return width;
}

// The service the stack's runtime runs for its current job, or null.
const json* service_of(const json& runtime) {
  if (!runtime.is_object() || ctl_json_text(runtime, "mode") != "service") return nullptr;
  auto service = runtime.find("service");
  return service != runtime.end() && service->is_object() ? &*service : nullptr;
}

row row_of(const json& stack, const json& runtime, int64_t now) {
  const json* service = service_of(runtime);
  std::string state = ctl_json_text(stack, "state");
  if (service != nullptr && !ctl_json_text(*service, "state").empty())
    state += " (service: " + ctl_json_text(*service, "state") + ")";
  int64_t pid = ctl_json_number(stack, "pid", -1);
  int64_t started = ctl_json_number(stack, "started", -1);
  // A service counts its own restarts; otherwise every job after the first
  // is a restart.
  int64_t restarts = std::max<int64_t>(ctl_json_number(stack, "starts") - 1, 0);
  if (service != nullptr) restarts = ctl_json_number(*service, "restarts", restarts);
  return {{ctl_terminal_escape(ctl_stack_name(stack)), state, pid > 0 ? std::to_string(pid) : "-",
           started >= 0 ? ctl_human_duration(static_cast<uint64_t>(std::max<int64_t>(now - started, 0))) : "-",
           std::to_string(restarts), ctl_human_bytes(static_cast<uint64_t>(ctl_json_number(stack, "image_bytes"))),
           ctl_json_text(stack, "key").substr(0, kKeyShown)}};
}

std::string table(std::vector<row> rows) {
  std::sort(rows.begin(), rows.end(), [](const row& a, const row& b) { return a.cells[0] < b.cells[0]; });
  rows.insert(rows.begin(), row{{"NAME", "STATE", "PID", "UPTIME", "RESTARTS", "IMAGE", "KEY"}});
  size_t widths[7] = {};
  for (const row& r : rows)
    for (size_t column = 0; column < 7; ++column) widths[column] = std::max(widths[column], width_of(r.cells[column]));
  std::string out;
  for (const row& r : rows) {
    for (size_t column = 0; column < 7; ++column) {
      out += r.cells[column];
      if (column + 1 < 7) out.append(widths[column] - width_of(r.cells[column]) + 2, ' ');
    }
    out += '\n';
  }
  return out;
}

// The stacks asked for (all without NAME operands), in the snapshot's order;
// each NAME that no stack has is reported, and the status says so.
std::vector<const json*> chosen(const ctl_options* options, const json& stacks, int* status) {
  std::vector<const json*> picked;
  for (const json& stack : stacks) {
    std::string name = ctl_stack_name(stack);
    bool asked = options->operands.empty();
    for (const char* operand : options->operands) asked = asked || name == operand;
    if (asked) picked.push_back(&stack);
  }
  for (const char* operand : options->operands) {
    bool found = std::any_of(picked.begin(), picked.end(), [&](const json* s) { return ctl_stack_name(*s) == operand; });
    if (found) continue;
    ctl_report_local("%s: status %s: unknown name", options->workdir, ctl_quote(operand).c_str());
    *status = CTL_UNKNOWN_NAME;
  }
  return picked;
}

}  // namespace

int ctl_run_status(const ctl_options* options) {
  ctl_snapshot snapshot;
  if (int status = ctl_snapshot_read_live(options, &snapshot)) return status;
  int status = CTL_OK;
  std::vector<const json*> stacks = chosen(options, snapshot.document["stacks"], &status);
  std::string out;
  if (options->json) {
    json shown = json::array();
    for (const json* stack : stacks) {
      shown.push_back(*stack);
      shown.back()["runtime"] = ctl_runtime_state(options->workdir, *stack);
    }
    out = shown.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
  } else {
    std::vector<row> rows;
    int64_t now = time(nullptr);
    for (const json* stack : stacks) rows.push_back(row_of(*stack, ctl_runtime_state(options->workdir, *stack), now));
    out = table(std::move(rows));
  }
  fwrite(out.data(), 1, out.size(), stdout);
  if (fflush(stdout) != 0) {
    ctl_report_local("%s: status: cannot write the table", options->workdir);
    return CTL_FAILED;
  }
  return status;
}

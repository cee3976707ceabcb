// metrics: the daemon's status snapshot in the Prometheus text format, for
// node_exporter's textfile collector. A daemon that does not run is a
// figure too (appsrv_up 0), so the command succeeds then and a timer keeps
// the collector's file current.
#include <cstdio>
#include <string>

#include "client/ctl_commands.h"
#include "client/ctl_snapshot.h"

namespace {

using json = nlohmann::ordered_json;

constexpr const char* kStates[] = {"idle", "running", "stopping", "undeployed"};
// The request counters of the snapshot, by the kind they count.
constexpr const char* kRequestKinds[][2] = {
    {"upload", "uploads"}, {"delete", "deletes"}, {"rename", "renames"}, {"select", "selects"}};

// A label value: backslash, double quote and line feed escaped.
std::string label(const std::string& value) {
  std::string escaped;
  for (char c : value) {
    if (c == '\\') escaped += "\\\\";
    else if (c == '"') escaped += "\\\"";
    else if (c == '\n') escaped += "\\n";
    else escaped += c;
  }
  return "\"" + escaped + "\"";
}

void family(std::string& out, const char* name, const char* type, const char* help) {
  out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string& out, const char* name, const std::string& labels, int64_t value) {
  out += name;
  if (!labels.empty()) out += "{" + labels + "}";
  out += " " + std::to_string(value) + "\n";
}

// Names in labels are the snapshot's "name", valid UTF-8 as the format
// wants; the key keeps apart two names that read alike there.
std::string stack_labels(const json& stack) {
  return "name=" + label(ctl_json_text(stack, "name")) + ",key=" + label(ctl_json_text(stack, "key"));
}

void stack_families(std::string& out, const json& stacks, const char* workdir) {
  family(out, "appsrv_stacks", "gauge", "Stacks in each state.");
  for (const char* state : kStates) {
    int64_t count = 0;
    for (const json& stack : stacks) count += ctl_json_text(stack, "state") == state;
    sample(out, "appsrv_stacks", "state=" + label(state), count);
  }
  family(out, "appsrv_stack_running", "gauge", "Whether the stack's job runs (1) or not (0).");
  for (const json& stack : stacks)
    sample(out, "appsrv_stack_running", stack_labels(stack), ctl_json_number(stack, "pid", -1) > 0);
  family(out, "appsrv_stack_starts_total", "counter", "Jobs started for the stack since the daemon started.");
  for (const json& stack : stacks)
    sample(out, "appsrv_stack_starts_total", stack_labels(stack), ctl_json_number(stack, "starts"));
  family(out, "appsrv_stack_exits_total", "counter", "Jobs of the stack that ended since the daemon started.");
  for (const json& stack : stacks)
    sample(out, "appsrv_stack_exits_total", stack_labels(stack), ctl_json_number(stack, "exits"));
  family(out, "appsrv_stack_service_restarts_total", "counter",
         "Restarts of the service the stack's runtime runs in its current job.");
  for (const json& stack : stacks) {
    json runtime = ctl_runtime_state(workdir, stack);
    if (!runtime.is_object() || ctl_json_text(runtime, "mode") != "service" || !runtime["service"].is_object()) continue;
    sample(out, "appsrv_stack_service_restarts_total", stack_labels(stack),
           ctl_json_number(runtime["service"], "restarts"));
  }
}

void daemon_families(std::string& out, const json& document) {
  const json& counters = document["counters"];
  family(out, "appsrv_daemon_start_time_seconds", "gauge", "When the daemon started, in unix seconds.");
  sample(out, "appsrv_daemon_start_time_seconds", "", ctl_json_number(document["daemon"], "started"));
  family(out, "appsrv_connections_total", "counter", "Management connections accepted since the daemon started.");
  sample(out, "appsrv_connections_total", "", ctl_json_number(counters, "connections"));
  family(out, "appsrv_requests_total", "counter",
         "Management requests since the daemon started, by kind; uploads whose image arrived in full.");
  for (const auto& [kind, counter] : kRequestKinds)
    sample(out, "appsrv_requests_total", "kind=" + label(kind), ctl_json_number(counters, counter));
  family(out, "appsrv_deploy_failures_total", "counter",
         "Uploads that did not become a deployed stack since the daemon started.");
  sample(out, "appsrv_deploy_failures_total", "", ctl_json_number(counters, "deploy_failures"));
}

}  // namespace

int ctl_run_metrics(const ctl_options* options) {
  ctl_snapshot snapshot;
  std::string problem;
  bool up = ctl_snapshot_read(options->workdir, &snapshot, &problem) == 0 && snapshot.live;
  std::string out;
  family(out, "appsrv_up", "gauge", "Whether the appsrv daemon runs (1) or not (0); nothing else is given when not.");
  sample(out, "appsrv_up", "", up);
  if (up) {
    daemon_families(out, snapshot.document);
    stack_families(out, snapshot.document["stacks"], options->workdir);
  }
  fwrite(out.data(), 1, out.size(), stdout);
  if (fflush(stdout) != 0) {
    ctl_report_local("%s: metrics: cannot write them", options->workdir);
    return CTL_FAILED;
  }
  return CTL_OK;
}

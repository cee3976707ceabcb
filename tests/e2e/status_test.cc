// The operator's view of the real daemon: its status snapshot as stacks come
// and go (with the reference runtime), and appsrvctl's status, logs and
// metrics over a working directory whose runtime files are fixtures (the
// test bootstrap writes none of its own).
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/ctl.h"

using namespace e2e;
using json = nlohmann::json;

namespace {

json snapshot_of(const Daemon& daemon) {
  return json::parse(read_file(daemon.path("private/status.json")), nullptr, false);
}

// The stack the snapshot shows with that name (invalid UTF-8 replaced), or null.
json stack_in(const json& snapshot, const std::string& name) {
  if (!snapshot.is_object()) return nullptr;
  for (const json& stack : snapshot["stacks"])
    if (stack["name"] == name) return stack;
  return nullptr;
}

// Every member of `expected` is in `actual` with that value; objects are
// compared member by member the same way.
bool has(const json& actual, const json& expected) {
  if (!expected.is_object() || !actual.is_object()) return actual == expected;
  for (const auto& [key, value] : expected.items())
    if (!actual.contains(key) || !has(actual.at(key), value)) return false;
  return true;
}

}  // namespace

TEST(Snapshot, FollowsStacksThroughUploadKillSelectRenameAndDelete) {
  Daemon daemon{APPSRV_RUNTIME};
  ASSERT_TRUE(daemon.start()) << daemon.err();
  uint16_t port = daemon.port();
  auto upload = [&](const std::string& name, const std::string& image) {
    Connection connection(port);
    return connection.send(upload_bytes(name, image)) ? connection.reply() : "";
  };
  json first = snapshot_of(daemon);
  EXPECT_TRUE(has(first["daemon"], {{"pid", daemon.pid()}, {"address", "127.0.0.1"}, {"port", port}, {"phase", "normal"}}))
      << first.dump();

  const std::string image = read_file(std::string(APPSRV_SOURCE_DIR) + "/examples/hello.sh");
  auto pid_of = [&](const std::string& name) { return stack_in(snapshot_of(daemon), name)["pid"].get<pid_t>(); };
  struct Step {
    std::string what;
    std::function<std::string()> act;  // the reply it got
    std::string reply;
    std::string name;  // the stack to look at, as the snapshot shows its name
    json stack;  // what it shows of it (null: no such stack)
    json counters;  // an object
  } steps[] = {
      {"upload", [&] { return upload("app", image); }, "success", "app",
       {{"state", "running"}, {"deployed", true}, {"image_bytes", image.size()}, {"starts", 1}, {"exits", 0},
        {"last_exit", nullptr}},
       {{"connections", 2}, {"uploads", 1}, {"deploy_failures", 0}}},
      {"job killed", [&] { return std::to_string(kill(pid_of("app"), SIGKILL)); }, "0", "app",
       {{"state", "idle"}, {"pid", nullptr}, {"started", nullptr}, {"starts", 1}, {"exits", 1},
        {"last_exit", {{"code", 9}, {"text", "Killed"}}}},
       json::object()},
      {"select of the idle stack", [&] { return ask(port, encode_select("app")); }, "failure: resurrecting dead stack",
       "app", {{"state", "running"}, {"starts", 2}, {"exits", 1}}, {{"selects", 1}}},
      {"rename", [&] { return ask(port, encode_rename("app", "b")); }, "upgrade", "b",
       {{"state", "running"}, {"starts", 2}}, {{"renames", 1}}},
      {"upload under a taken name", [&] { return upload("b", image); }, "failure: duplicate name", "b",
       {{"starts", 2}}, {{"uploads", 2}, {"deploy_failures", 1}}},
      {"upload the runtime refuses", [&] { return upload("text", "just text\n"); },
       "failure: invalid image: neither an ELF program nor a \"#!\" script",
       "text", nullptr, {{"uploads", 3}, {"deploy_failures", 2}}},
      {"delete", [&] { return ask(port, encode_delete("b")); }, "success", "b", nullptr, {{"deletes", 1}}},
      {"a name that is not UTF-8", [&] { return upload("\xff\x01\"ok\xc3\xa9", image); }, "success",
       "\xef\xbf\xbd\x01\"ok\xc3\xa9", {{"name_hex", "ff01226f6bc3a9"}, {"state", "running"}},
       {{"connections", 8}, {"uploads", 4}, {"deletes", 1}, {"renames", 1}, {"selects", 1}}},
  };
  for (Step& step : steps) {
    SCOPED_TRACE(step.what);
    EXPECT_EQ(step.act(), step.reply);
    json snapshot;
    auto shows = [&] {
      snapshot = snapshot_of(daemon);
      json stack = stack_in(snapshot, step.name);
      return has(stack, step.stack) && has(snapshot["counters"], step.counters);
    };
    EXPECT_TRUE(eventually(shows)) << snapshot.dump(1);
    // A job's pid and start go with it.
    for (const json& stack : snapshot["stacks"]) {
      bool job = stack["state"] == "running" || stack["state"] == "stopping";
      EXPECT_EQ(stack["pid"].is_number(), job) << stack.dump();
      EXPECT_EQ(stack["started"].is_number(), job) << stack.dump();
    }
  }
}

namespace {

// Three stacks of the test bootstrap: "svc", whose fixture runtime reports a
// service, `we"b\`, whose runtime reports handlers, and "idle", whose
// program ended.
class Operator : public testing::Test {
 protected:
  void SetUp() override {
    daemon_.behave("default", "marker");
    daemon_.behave("idle", "marker\nexit 0");
    ASSERT_TRUE(daemon_.start()) << daemon_.err();
    for (const char* name : {"svc", kWeb, "idle"}) greeting(daemon_.port(), upload_bytes(name, "x"));
    ASSERT_TRUE(eventually([&] { return stack_in(snapshot_of(daemon_), "idle")["state"] == "idle"; }));
    write_file(runtime_path("svc"), kServiceRuntime.dump());
    write_file(runtime_path(kWeb), R"({"mode": "handler", "service": null, "handlers": 2})");
  }
  std::string runtime_path(const std::string& name) { return daemon_.path("stacks/" + daemon_.key_of(name) + "/runtime.json"); }

  static constexpr const char* kWeb = "we\"b\\";
  const json kServiceRuntime = {
      {"mode", "service"},
      {"service",
       {{"pid", 4242}, {"state", "backoff"}, {"restarts", 3}, {"started", nullptr},
        {"last_exit", {{"code", 1}, {"text", "failure"}, {"at", 1}}}}},
      {"handlers", 0}};
  Daemon daemon_;
};

// Each sample as the parser reads it: "name{label="value",...} value", the
// labels sorted, their values as JSON strings.
const char kParse[] = R"(
import json, sys
from prometheus_client.parser import text_string_to_metric_families
for family in text_string_to_metric_families(sys.stdin.read()):
    for sample in family.samples:
        labels = ",".join(k + "=" + json.dumps(v) for k, v in sorted(sample.labels.items()))
        print("%s{%s} %d" % (sample.name, labels, sample.value))
)";

}  // namespace

TEST_F(Operator, StatusShowsStatesPidsUptimesAndRestartsWithWhatTheRuntimeReports) {
  std::string svc = daemon_.key_of("svc").substr(0, 12), web = daemon_.key_of(kWeb).substr(0, 12),
              idle = daemon_.key_of("idle").substr(0, 12);
  Outcome table = appsrvctl(daemon_, {"status"});
  EXPECT_EQ(table.status, 0) << table.err;
  EXPECT_TRUE(std::regex_match(table.out, std::regex("NAME +STATE +PID +UPTIME +RESTARTS +IMAGE +KEY\n"
                                                     "idle +idle +- +- +0 +1 B +" + idle + "\n"
                                                     "svc +running \\(service: backoff\\) +[0-9]+ +[0-9]+s +3 +1 B +" + svc + "\n"
                                                     "we\"b\\\\\\\\ +running +[0-9]+ +[0-9]+s +0 +1 B +" + web + "\n")))
      << table.out;

  Outcome one = appsrvctl(daemon_, {"status", "--json", "svc"});
  json shown = json::parse(one.out, nullptr, false);
  ASSERT_TRUE(shown.is_array() && shown.size() == 1) << one.out;
  EXPECT_EQ(shown[0]["runtime"], kServiceRuntime);
  EXPECT_EQ(shown[0]["key"], daemon_.key_of("svc"));

  Outcome unknown = appsrvctl(daemon_, {"status", "svc", "nope"});
  EXPECT_EQ(unknown.status, 3);
  EXPECT_TRUE(contains(unknown.err, "status 'nope': unknown name")) << unknown.err;
  EXPECT_TRUE(contains(unknown.out, "svc ")) << "the stacks that exist are shown all the same";
}

TEST_F(Operator, MetricsAreReadByARealParser) {
  write_file(daemon_.path("metrics.txt"), appsrvctl(daemon_, {"metrics"}).out);
  std::string samples = daemon_.path("samples.txt");
  int status = system(("/usr/bin/python3 -c '" + std::string(kParse) + "' <" + daemon_.path("metrics.txt") + " >" +
                       samples + " 2>&1").c_str());
  samples = read_file(samples);
  ASSERT_EQ(status, 0) << samples;
  std::string svc = "key=\"" + daemon_.key_of("svc") + "\",name=\"svc\"";
  std::string web = "key=\"" + daemon_.key_of(kWeb) + "\",name=\"we\\\"b\\\\\"";
  for (const std::string& sample : std::vector<std::string>{
           "appsrv_up{} 1", "appsrv_stacks{state=\"idle\"} 1", "appsrv_stacks{state=\"running\"} 2",
        "appsrv_stacks{state=\"stopping\"} 0", "appsrv_stack_running{" + svc + "} 1", "appsrv_stack_running{" + web + "} 1",
        "appsrv_stack_service_restarts_total{" + svc + "} 3", "appsrv_stack_starts_total{" + web + "} 1",
        "appsrv_requests_total{kind=\"upload\"} 3", "appsrv_requests_total{kind=\"select\"} 0"})
    EXPECT_TRUE(contains(samples, sample + "\n")) << sample << " in\n" << samples;
  EXPECT_FALSE(contains(samples, "appsrv_stack_service_restarts_total{" + web)) << "handlers are no service";
}

TEST_F(Operator, LogsReachBackIntoTheRotatedFileAndFollowAcrossRotations) {
  std::string log = daemon_.path("data/" + daemon_.key_of("svc") + "/log/");
  make_tree(log);
  write_file(log + "previous", "p1\np2\np3\n");
  write_file(log + "current", "c1\nc2\n");
  EXPECT_EQ(appsrvctl(daemon_, {"logs", "-n", "3", "svc"}).out, "p3\nc1\nc2\n");
  EXPECT_EQ(appsrvctl(daemon_, {"logs", "svc"}).out, "p1\np2\np3\nc1\nc2\n") << "ten lines by default";
  EXPECT_EQ(appsrvctl(daemon_, {"logs", "nope"}).status, 3);

  Ctl follower({"logs", "-f", "-n", "1", "svc"}, reaching(daemon_));
  ASSERT_TRUE(eventually([&] { return follower.out() == "c2\n"; })) << follower.out();
  std::ofstream(log + "current", std::ios::app) << "c3\n";
  ASSERT_EQ(rename((log + "current").c_str(), (log + "previous").c_str()), 0);
  write_file(log + "current", "n1\n");
  EXPECT_TRUE(eventually([&] { return follower.out() == "c2\nc3\nn1\n"; })) << follower.out();
  std::ofstream(log + "current", std::ios::app) << "n2\n";
  EXPECT_TRUE(eventually([&] { return follower.out() == "c2\nc3\nn1\nn2\n"; })) << follower.out();
  follower.signal(SIGINT);
  EXPECT_EQ(follower.wait().status, 0);
}

TEST_F(Operator, ASnapshotWhoseDaemonIsGoneIsNeverShownAsLive) {
  daemon_.signal(SIGKILL);
  ASSERT_NE(daemon_.wait_exit(5000), -1);
  Outcome status = appsrvctl(daemon_, {"status"});
  EXPECT_EQ(status.status, 5);
  EXPECT_EQ(status.out, "");
  EXPECT_TRUE(contains(status.err, "appsrv is not running (last snapshot from ")) << status.err;
  Outcome metrics = appsrvctl(daemon_, {"metrics"});
  EXPECT_EQ(metrics.status, 0) << "a timer keeps the collector's file current";
  EXPECT_EQ(metrics.out, "# HELP appsrv_up Whether the appsrv daemon runs (1) or not (0); nothing else is given "
                         "when not.\n# TYPE appsrv_up gauge\nappsrv_up 0\n");
}

// The operator's path and view: appsrvctl and the reference stack runtime
// against the real daemon with the example application, directly and through
// a real sshd (which needs root and /usr/sbin/sshd; elsewhere that test is
// skipped); the daemon's status snapshot as stacks come and go; and
// appsrvctl's status, logs and metrics over a working directory whose runtime
// files are fixtures (the test bootstrap writes none of its own).
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <pwd.h>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/support/ctl.h"

using namespace e2e;
using json = nlohmann::json;

namespace {

const std::string kExample = std::string(APPSRV_SOURCE_DIR) + "/examples/hello.sh";

class Quickstart : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.start()) << daemon_.err(); }
  Daemon daemon_{APPSRV_RUNTIME};
};
class Ssh : public Quickstart {};
class Snapshot : public Quickstart {};

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

TEST_F(Quickstart, UploadSelectRenameDeleteAndAnInvalidImageRefused) {
  Outcome upload = appsrvctl(daemon_, {"upload", "hello", kExample});
  ASSERT_EQ(upload.status, 0) << upload.err;
  EXPECT_EQ(appsrvctl(daemon_, {"list"}).out, "hello\n");

  Outcome session = appsrvctl(daemon_, {"select", "hello"}, "hi there\nquit\n");
  EXPECT_EQ(session.status, 0) << session.err;
  EXPECT_EQ(session.out, "hello from hello\nhello: hi there\nbye\n");

  EXPECT_EQ(appsrvctl(daemon_, {"rename", "hello", "greeter"}).status, 0);
  // The end of standard input reaches the application, which still answers.
  EXPECT_EQ(appsrvctl(daemon_, {"attach", "greeter"}).out, "hello from greeter\nbye\n")
      << "a later handler sees the new name";

  EXPECT_EQ(appsrvctl(daemon_, {"delete", "greeter"}).status, 0);
  EXPECT_EQ(appsrvctl(daemon_, {"list"}).out, "");
  EXPECT_EQ(appsrvctl(daemon_, {"select", "greeter"}).status, 3) << "unknown name";

  // The deploying runtime exits without the deployed marker; supervision
  // removes the stack.
  write_file(daemon_.path("notes.txt"), "just some text\n");
  Outcome refused = appsrvctl(daemon_, {"upload", "notes", daemon_.path("notes.txt")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(contains(refused.err, "invalid image")) << refused.err;
  EXPECT_TRUE(eventually([&] { return appsrvctl(daemon_, {"list"}).out.empty() && daemon_.key_of("notes").empty(); }));
}

TEST_F(Quickstart, SigintShutsTheStacksDownAndTellsASelectedClientWhy) {
  ASSERT_EQ(appsrvctl(daemon_, {"upload", "hello", kExample}).status, 0);
  // A session whose standard input stays open until the shutdown ends it.
  Ctl session({"select", "hello"}, reaching(daemon_));
  ASSERT_TRUE(eventually([&] { return session.out() == "hello from hello\n"; }));

  daemon_.signal(SIGINT);
  EXPECT_EQ(daemon_.wait_exit(5000), 0);
  EXPECT_TRUE(contains(daemon_.out(), "AppSrv: Signaled to stop!"));
  EXPECT_FALSE(contains(daemon_.out(), "Signaled to force stop!")) << "the runtime shuts down when told";
  Outcome ended = session.wait();
  EXPECT_EQ(ended.status, 5);
  EXPECT_EQ(ended.out, "hello from hello\nappsrv: session ended: the stack is stopping\n");
  EXPECT_TRUE(contains(ended.err, "select 'hello': the stack stopped the session")) << ended.err;
}

// The management protocol through ssh -W, and status run by appsrvctl on the
// SSH host (the built one: first on its sessions' PATH), as the current user
// with throwaway keys.
TEST_F(Ssh, ListUploadSelectAndStatusTravelThroughSsh) {
  if (geteuid() != 0 || access("/usr/sbin/sshd", X_OK) != 0) GTEST_SKIP() << "sshd needs root and /usr/sbin/sshd";
  std::string dir = daemon_.path("sshd");
  uint16_t port = free_port();
  make_tree(dir + "/bin");
  ASSERT_EQ(system(("ssh-keygen -q -t ed25519 -N '' -f " + dir + "/host_key && ssh-keygen -q -t ed25519 -N '' -f " +
                    dir + "/user_key && cp " + dir + "/user_key.pub " + dir + "/authorized_keys").c_str()), 0);
  ASSERT_EQ(symlink(APPSRVCTL_BINARY, (dir + "/bin/appsrvctl").c_str()), 0);
  write_file(dir + "/sshd_config", "Port " + std::to_string(port) + "\nListenAddress 127.0.0.1\nHostKey " + dir +
                                       "/host_key\nAuthorizedKeysFile " + dir + "/authorized_keys\nPidFile none\n"
                                       "UsePAM no\nStrictModes no\nSetEnv PATH=" + dir + "/bin:/usr/bin:/bin\n");
  mkdir("/run/sshd", 0755);  // its privilege separation directory
  pid_t sshd = fork();
  if (sshd == 0) {
    dup2(open((dir + "/sshd.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 2);
    execl("/usr/sbin/sshd", "/usr/sbin/sshd", "-D", "-e", "-f", (dir + "/sshd_config").c_str(), nullptr);
    _exit(127);
  }
  struct Stop {
    pid_t pid;
    ~Stop() {
      if (pid > 0 && kill(pid, SIGTERM) == 0) waitpid(pid, nullptr, 0);
    }
  } stop{sshd};
  ASSERT_TRUE(eventually([&] { return Connection(port).connected(); })) << read_file(dir + "/sshd.log");
  Variables through = {{"APPSRV_SSH", std::string(getpwuid(getuid())->pw_name) + "@127.0.0.1:" + std::to_string(port)},
                       {"APPSRV_SSH_OPTIONS", "-i " + dir + "/user_key -o IdentitiesOnly=yes -o LogLevel=ERROR "
                                              "-o UserKnownHostsFile=/dev/null -o GlobalKnownHostsFile=/dev/null "
                                              "-o StrictHostKeyChecking=no"}};
  auto run = [&](std::vector<std::string> arguments, const std::string& input = "") {
    return appsrvctl(daemon_, arguments, input, through);
  };

  Outcome upload = run({"upload", "hello", kExample});
  EXPECT_EQ(upload.status, 0) << upload.err;
  EXPECT_TRUE(contains(upload.err, " via ")) << upload.err;
  EXPECT_EQ(run({"list"}).out, "hello\n");
  Outcome session = run({"select", "hello"}, "over ssh\nquit\n");
  EXPECT_EQ(session.out, "hello from hello\nhello: over ssh\nbye\n") << session.err;

  // The working directory is the SSH host's, given on.
  Outcome status = run({"status", "--workdir", daemon_.path("")});
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_TRUE(std::regex_search(status.out, std::regex("\nhello +running +[0-9]+ "))) << status.out;

  // A session whose SSH link is lost ends as a lost connection, not as the application's end.
  Ctl dropped({"select", "hello"}, reaching(daemon_, "", through));
  ASSERT_TRUE(eventually([&] { return dropped.out() == "hello from hello\n"; })) << dropped.out();
  for (const std::string& pid : entries("/proc")) {  // sshd's connection processes
    std::string stat = read_file("/proc/" + pid + "/stat");
    size_t end = stat.rfind(") ");
    if (end != std::string::npos && atoi(stat.c_str() + end + 4) == sshd) kill(stoi(pid), SIGKILL);
  }
  Outcome lost = dropped.wait();
  EXPECT_EQ(lost.status, 5);
  EXPECT_TRUE(contains(lost.err, "select 'hello': ssh")) << lost.err;

  Outcome nobody = run({"--address", "127.0.0.1:1", "list"});
  EXPECT_EQ(nobody.status, 5);
  EXPECT_TRUE(contains(nobody.err, "list: ssh: stdio forwarding failed")) << nobody.err;
}

TEST_F(Snapshot, FollowsStacksThroughUploadKillSelectRenameAndDelete) {
  uint16_t port = daemon_.port();
  auto upload = [&](const std::string& name, const std::string& image) {
    Connection connection(port);
    return connection.send(upload_bytes(name, image)) ? connection.reply() : "";
  };
  json first = snapshot_of(daemon_);
  EXPECT_TRUE(has(first["daemon"], {{"pid", daemon_.pid()}, {"address", "127.0.0.1"}, {"port", port}, {"phase", "normal"}}))
      << first.dump();

  const std::string image = read_file(kExample);
  auto pid_of = [&](const std::string& name) { return stack_in(snapshot_of(daemon_), name)["pid"].get<pid_t>(); };
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
      snapshot = snapshot_of(daemon_);
      json stack = stack_in(snapshot, step.name);
      return has(stack, step.stack) && has(snapshot["counters"], step.counters);
    };
    EXPECT_TRUE(eventually(shows)) << snapshot.dump(1);
    for (const json& stack : snapshot["stacks"]) {  // a job's pid and start go with it
      bool job = stack["state"] == "running" || stack["state"] == "stopping";
      EXPECT_TRUE(stack["pid"].is_number() == job && stack["started"].is_number() == job) << stack.dump();
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
    for (const auto& [name, runtime] : {std::pair<std::string, std::string>{"svc", kServiceRuntime.dump()},
                                        {kWeb, R"({"mode": "handler", "service": null, "handlers": 2})"}})
      write_file(daemon_.path("stacks/" + daemon_.key_of(name) + "/runtime.json"), runtime);
  }

  static constexpr const char* kWeb = "we\"b\\";
  const json kServiceRuntime = {{"mode", "service"}, {"handlers", 0},
                                {"service", {{"pid", 4242}, {"state", "backoff"}, {"restarts", 3}, {"started", nullptr},
                                             {"last_exit", {{"code", 1}, {"text", "failure"}, {"at", 1}}}}}};
  Daemon daemon_;
};

// Each sample as the parser reads it: "name{label="value",...} value", the
// labels sorted, their values as JSON strings.
const char kParse[] = R"(
import json, sys
from prometheus_client.parser import text_string_to_metric_families as families
for s in (sample for family in families(sys.stdin.read()) for sample in family.samples):
    print("%s{%s} %d" % (s.name, ",".join(k + "=" + json.dumps(v) for k, v in sorted(s.labels.items())), s.value))
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

// Long-running services: bundles uploaded with appsrvctl, run by the
// reference runtime under the real daemon; their logs, restarts, shutdown and
// state file, and the bundles the runtime refuses.
#include <gtest/gtest.h>

#include <archive.h>
#include <archive_entry.h>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

#include "tests/support/ctl.h"

using namespace e2e;
using nlohmann::json;

namespace {

const std::string kHeartbeat = std::string(APPSRV_SOURCE_DIR) + "/examples/heartbeat";

// One entry of an archive made in the test: a file with `data`, a symbolic
// link or (type 0) a hard link to `data`, a fifo or a device. A file given
// a `size` of its own declares it, and the archive is cut after its header.
struct Entry {
  std::string path, data;
  unsigned type = AE_IFREG;
  int64_t size = -1;
};

// A tar archive, plain or through a compression filter, written with libarchive.
std::string archive_of(const std::vector<Entry>& entries, const std::string& filter = "") {
  std::pair<std::string, bool> out;  // the bytes, and whether the rest is cut (and its writing fails)
  archive* writer = archive_write_new();
  archive_write_set_format_pax_restricted(writer);
  if (filter == "gzip") archive_write_add_filter_gzip(writer);
  if (filter == "zstd") archive_write_add_filter_zstd(writer);
  archive_write_set_bytes_per_block(writer, 0);
  auto append = [](archive*, void* context, const void* data, size_t size) -> la_ssize_t {
    auto* out = static_cast<std::pair<std::string, bool>*>(context);
    if (out->second) return -1;
    out->first.append(static_cast<const char*>(data), size);
    return static_cast<la_ssize_t>(size);
  };
  archive_write_open(writer, &out, nullptr, append, nullptr);
  for (const Entry& entry : entries) {
    archive_entry* header = archive_entry_new();
    archive_entry_set_pathname(header, entry.path.c_str());
    archive_entry_set_mode(header, (entry.type != 0 ? entry.type : AE_IFREG) | 0755);
    if (entry.type == AE_IFLNK) archive_entry_set_symlink(header, entry.data.c_str());
    if (entry.type == 0) archive_entry_set_hardlink(header, entry.data.c_str());
    if (entry.type == AE_IFREG) archive_entry_set_size(header, entry.size >= 0 ? entry.size : int64_t(entry.data.size()));
    archive_write_header(writer, header);
    archive_entry_free(header);
    out.second = entry.size >= 0;
    if (out.second) break;
    if (entry.type == AE_IFREG) archive_write_data(writer, entry.data.data(), entry.data.size());
  }
  archive_write_free(writer);
  return out.first;
}

const std::string kManifest = "[service]\ncommand = [\"./run\"]\n";

class Services : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon_.start()) << daemon_.err(); }
  // A stopped daemon takes its stacks, and their services, along.
  void TearDown() override {
    if (daemon_.pid() <= 0) return;  // already gone: kill(-1) would reach every process
    daemon_.signal(SIGINT);
    daemon_.wait_exit(15000);
  }

  // A bundle directory with appsrv.toml and the service script `run`.
  std::string bundle(const std::string& name, const std::string& manifest, const std::string& run) {
    std::string directory = daemon_.path("bundles/" + name);
    make_tree(directory);
    write_file(directory + "/appsrv.toml", manifest);
    write_file(directory + "/run", "#!/bin/sh\n" + run);
    chmod((directory + "/run").c_str(), 0755);
    return directory;
  }

  Outcome upload(const std::string& name, const std::string& what, const std::string& option = "") {
    return appsrvctl(daemon_, option.empty() ? Names{"upload", name, what} : Names{option, "upload", name, what});
  }

  std::string store(const std::string& name) { return daemon_.path("data/" + daemon_.key_of(name)); }
  std::string log(const std::string& name) { return read_file(store(name) + "/log/current"); }
  json state(const std::string& name) {
    return json::parse(read_file(daemon_.path("stacks/" + daemon_.key_of(name) + "/runtime.json")), nullptr, false);
  }
  json service(const std::string& name) {
    json all = state(name);
    return all.is_object() && all["service"].is_object() ? all["service"] : json::object();
  }
  bool service_is(const std::string& name, const std::string& wanted, int milliseconds = 5000) {
    return eventually([&] { return service(name).value("state", "") == wanted; }, milliseconds);
  }

  Daemon daemon_{APPSRV_RUNTIME};
};

// A log line's time stamp in milliseconds since the epoch.
int64_t stamp_ms(const std::string& line) {
  tm parts{};
  strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  return int64_t{timegm(&parts)} * 1000 + atoi(line.c_str() + 20);
}

std::vector<std::string> lines_with(const std::string& text, const std::string& part) {
  std::vector<std::string> found;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (contains(line, part)) found.push_back(line);
  return found;
}

}  // namespace

TEST_F(Services, TheExampleServiceLogsComesBackAfterAKillAndOutlivesARename) {
  ASSERT_EQ(upload("hb", kHeartbeat).status, 0);
  ASSERT_TRUE(service_is("hb", "running"));
  json first = state("hb");
  EXPECT_EQ(first["mode"], "service");
  EXPECT_EQ(first["handlers"], 0);
  int pid = first["service"]["pid"];
  ASSERT_GT(pid, 1);
  EXPECT_EQ(first["service"]["restarts"], 0);
  EXPECT_TRUE(first["service"]["last_exit"].is_null());
  EXPECT_TRUE(std::regex_search(log("hb"), std::regex("\n\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z service\\[" +
                                                      std::to_string(pid) + "\\] heartbeat 1\n")))
      << log("hb");

  EXPECT_TRUE(std::regex_match(appsrvctl(daemon_, {"select", "hb"}).out, std::regex("hb: service up for \\d+ s\n")));
  ASSERT_EQ(appsrvctl(daemon_, {"rename", "hb", "beat"}).status, 0);
  EXPECT_EQ(service("beat")["pid"], pid) << "a rename does not restart the service";

  ASSERT_EQ(kill(pid, SIGKILL), 0);
  ASSERT_TRUE(service_is("beat", "backoff"));
  EXPECT_TRUE(service("beat")["pid"].is_null());
  ASSERT_TRUE(eventually([&] { return service("beat")["pid"].is_number(); }));
  json again = service("beat");
  EXPECT_EQ(again["restarts"], 1);
  std::string started = "heartbeat for beat started, pid " + std::to_string(again["pid"].get<int>());
  EXPECT_TRUE(eventually([&] { return contains(log("beat"), started); })) << log("beat");
}

// A restart comes after a back-off that doubles with every end.
TEST_F(Services, TheRestartPolicyDecidesAfterAnEndAndACrashLoopWaitsLongerEachTime) {
  write_file(daemon_.path("done.sh"), "#!/bin/sh\nexit 0\n");
  const struct { std::string name, source, option; int code; bool restarted; } rows[] = {
      // Each run of "crash" leaves a process in its group that ignores SIGTERM.
      {"crash", bundle("crash", kManifest, "(trap '' TERM; exec sleep 300) &\necho left $!\nexit 3\n"), "", 3, true},
      {"never", bundle("never", kManifest + "restart = \"never\"\n", "exit 1\n"), "", 1, false},
      {"wrapped", daemon_.path("done.sh"), "--service", 0, false},  // on-failure by default
      {"always", bundle("always", kManifest + "restart = \"always\"\n", "exit 0\n"), "", 0, true},
  };
  for (const auto& row : rows) ASSERT_EQ(upload(row.name, row.source, row.option).status, 0) << row.name;
  // The others ended before "always" did: had they been restarted, it would
  // have happened by the time "always" is, give or take the scheduler.
  ASSERT_TRUE(eventually([&] { return service("always").value("restarts", 0) >= 1; }));
  usleep(300 * 1000);
  for (const auto& row : rows) {
    json ended = service(row.name);
    EXPECT_EQ(ended["state"] == "stopped", !row.restarted) << row.name << ": " << log(row.name);
    EXPECT_EQ(ended["restarts"] > 0, row.restarted) << row.name;
    EXPECT_EQ(ended["last_exit"]["code"], row.code) << row.name;
  }
  EXPECT_EQ(appsrvctl(daemon_, {"select", "never"}).out, "stack never has no handler\n");

  ASSERT_TRUE(eventually([&] { return contains(log("crash"), "restarting in 4 s"); }, 10000)) << log("crash");
  std::string text = log("crash");
  std::vector<std::string> waits = lines_with(text, "restarting in"), starts = lines_with(text, "service started");
  ASSERT_EQ(waits.size(), 3u) << text;
  EXPECT_TRUE(contains(waits[0], "ended, failure (3); restarting in 1 s")) << waits[0];
  EXPECT_TRUE(contains(waits[1], "restarting in 2 s")) << waits[1];
  ASSERT_EQ(starts.size(), 3u) << text;
  EXPECT_GE(stamp_ms(starts[1]) - stamp_ms(starts[0]), 1000);
  EXPECT_GE(stamp_ms(starts[2]) - stamp_ms(starts[1]), 2000);
  std::vector<std::string> left = lines_with(text, "] left ");
  ASSERT_EQ(left.size(), 3u) << text;
  for (size_t run = 0; run < 2; ++run)
    EXPECT_TRUE(eventually([&] { return process_gone(atoi(left[run].substr(left[run].rfind(' ')).c_str())); }))
        << "what run " << run << " left is gone once its successor starts";
  json crash = service("crash");
  EXPECT_EQ(crash["state"], "backoff");
  EXPECT_EQ(crash["restarts"], 2);
  EXPECT_EQ(crash["last_exit"]["text"], "failure");
}

TEST_F(Services, ShutdownKillsAServiceThatOutlivesItsStopTimeoutAndARestartReusesTheBundle) {
  std::string stubborn = "echo started\ntrap '' TERM\nwhile :; do sleep 0.1; done\n";
  ASSERT_EQ(upload("stubborn", bundle("stubborn", kManifest + "stop-timeout = 2\n", stubborn)).status, 0);
  ASSERT_TRUE(service_is("stubborn", "running"));
  int pid = service("stubborn")["pid"];
  ASSERT_GT(pid, 1);
  std::string app = store("stubborn") + "/app";
  write_file(app + "/left-behind", "not in the bundle");
  // A service that ended for good, leaving a process that ignores SIGTERM.
  std::string leaver = kManifest + "restart = \"never\"\nstop-timeout = 2\n";
  ASSERT_EQ(upload("leaver", bundle("leaver", leaver, "(trap '' TERM; exec sleep 300) &\necho left $!\nexit 1\n")).status, 0);
  ASSERT_TRUE(service_is("leaver", "stopped"));
  std::vector<std::string> left = lines_with(log("leaver"), "] left ");
  ASSERT_EQ(left.size(), 1u) << log("leaver");
  pid_t remnant = atoi(left[0].substr(left[0].rfind(' ')).c_str());

  int64_t asked = now_ms();
  daemon_.signal(SIGINT);
  ASSERT_EQ(daemon_.wait_exit(10000), 0);
  EXPECT_GE(now_ms() - asked, 1900);
  EXPECT_NE(kill(pid, 0), 0) << "the service is gone";
  EXPECT_TRUE(eventually([&] { return process_gone(remnant); })) << "so is what an ended run left";
  EXPECT_FALSE(contains(daemon_.out(), "Signaled to force stop!"));
  EXPECT_TRUE(contains(log("stubborn"), "the service outlived SIGTERM, killing it"));
  EXPECT_EQ(service("stubborn")["state"], "stopped");

  ASSERT_TRUE(daemon_.start()) << daemon_.err();
  ASSERT_TRUE(eventually([&] { return service("stubborn")["pid"].is_number(); }));
  int again = service("stubborn")["pid"];
  ASSERT_GT(again, 1);
  EXPECT_NE(again, pid);
  EXPECT_EQ(read_file(app + "/left-behind"), "not in the bundle") << "app/ is not unpacked again";
  kill(-again, SIGKILL);  // spares the tear-down the stop timeout
}

TEST_F(Services, TheLogRotatesAtOneMebibyteKeepingEveryLineAndSplitsLongOnes) {
  // Some 1.8 MiB of log: one rotation, so nothing is lost yet.
  std::string run = "head -c 10000 /dev/zero | tr '\\0' x; echo\nseq 1 40000\nexec sleep 300\n";
  ASSERT_EQ(upload("chatty", bundle("chatty", kManifest, run)).status, 0);
  ASSERT_TRUE(eventually([&] { return contains(log("chatty"), "] 40000\n"); }, 15000)) << log("chatty").size();
  EXPECT_EQ(entries(store("chatty") + "/log"), (Names{"current", "previous"}));
  std::string previous = read_file(store("chatty") + "/log/previous");
  EXPECT_GT(previous.size(), 1u << 20);
  EXPECT_LE(previous.size(), (1u << 20) + 4200);

  std::vector<std::string> output = lines_with(previous + log("chatty"), " service[");
  ASSERT_EQ(output.size(), 3u + 40000u);
  for (size_t piece = 0; piece < 3; ++piece) {
    size_t length = output[piece].size() - output[piece].find("] ") - 2;
    EXPECT_EQ(length, piece < 2 ? 4096u : 10000u - 2 * 4096u);
  }
  for (int number = 1; number <= 40000; ++number)
    ASSERT_TRUE(output[2 + number].ends_with("] " + std::to_string(number))) << output[2 + number];
}

TEST_F(Services, HostileBundlesAreRefusedWithTheirReasonAndNothingEscapes) {
  const Entry manifest{"appsrv.toml", "[handler]\ncommand = [\"./run\"]\n"}, run{"run", "#!/bin/sh\n"};
  struct statvfs disk{};
  ASSERT_EQ(statvfs(daemon_.path("data").c_str(), &disk), 0);
  int64_t beyond = static_cast<int64_t>(disk.f_bavail * disk.f_frsize) + (int64_t{1} << 30);
  std::string outside = daemon_.path("escaped");
  const std::pair<std::vector<Entry>, std::string> rows[] = {
      {{manifest, run, {outside, "x"}}, "entry \"" + outside + "\": absolute path"},
      {{manifest, {"sub/../../../escaped", "x"}}, "entry \"sub/../../../escaped\": \"..\" component"},
      {{manifest, {"sub/link", "../../escaped", AE_IFLNK}}, "entry \"sub/link\": symbolic link to \"../../escaped\" leads outside app/"},
      {{manifest, {"root", outside, AE_IFLNK}}, "entry \"root\": symbolic link to \"" + outside + "\" leads outside app/"},
      // Lexically inside, but "here" is a link to app/ itself.
      {{manifest, {"here", ".", AE_IFLNK}, {"up", "here/../escaped", AE_IFLNK}},
       "entry \"up\": symbolic link to \"here/../escaped\" has \"..\" after a name"},
      {{manifest, {"hard", "../escaped", 0}}, "entry \"hard\": hard link to \"../escaped\" leads outside app/"},
      {{manifest, {"pipe", "", AE_IFIFO}}, "entry \"pipe\": fifos are not allowed"},
      {{manifest, {"null", "", AE_IFCHR}}, "entry \"null\": devices are not allowed"},
      {{manifest, {"huge", "", AE_IFREG, beyond}}, "entry \"huge\": the unpacked size passes the free space of the store less 64 MiB"},
      // The link stays inside where it is; its second name would not.
      {{manifest, {"a/b/up", "../../x", AE_IFLNK}, {"copy", "a/b/up", 0}},
       "entry \"copy\": hard link to \"a/b/up\" is a symbolic link"},
      {{run}, "appsrv.toml missing at the top of the bundle"},
      {{{"appsrv.toml", "[service]\ncommand = \"./run\"\n"}, run},
       "appsrv.toml line 2: [service] command: expected a non-empty array of strings"},
  };
  int number = 0;
  for (const auto& [entries, reason] : rows) {
    std::string name = "hostile" + std::to_string(++number), file = daemon_.path(name + ".tar");
    write_file(file, archive_of(entries, number % 2 == 0 ? "gzip" : ""));
    Outcome refused = upload(name, file);
    EXPECT_EQ(refused.status, 1) << reason;
    EXPECT_TRUE(contains(refused.err, "upload '" + name + "': invalid image: " + reason)) << refused.err;
  }
  // The refused stacks go with everything they unpacked.
  EXPECT_TRUE(eventually([&] { return entries(daemon_.path("data")).empty(); }));
  EXPECT_FALSE(exists(outside));
  EXPECT_FALSE(exists(daemon_.path("stacks/escaped")));

  // Compressed bundles that hold nothing hostile are taken as they come.
  for (const std::string filter : {"gzip", "zstd"}) {
    write_file(daemon_.path(filter + ".tar"), archive_of({manifest, run}, filter));
    EXPECT_EQ(upload(filter, daemon_.path(filter + ".tar")).status, 0) << filter;
  }
}

// The daemon's hot paths as a client sees them, the real appsrv over
// loopback TCP: `list` requests one after another (each a connection of its
// own, as the protocol has it), and 1 KiB uploads from the request until the
// new stack's program answers (the test bootstrap; each stack is deleted
// outside the timing).
//
// APPSRV_BENCH_DAEMONS="LABEL=PATH ..." compares builds in one run (for
// instance this tree against a build of an earlier commit); by default it
// measures the appsrv built with this benchmark. Use
// --benchmark_enable_random_interleaving=true with repetitions, so that a
// machine busy with other work weighs on every build alike.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/daemon.h"

namespace {

struct Build {
  std::string label;
  std::unique_ptr<e2e::Daemon> daemon;
  int uploads = 0;
};

std::vector<Build> builds;

void start_builds() {
  const char* listed = getenv("APPSRV_BENCH_DAEMONS");
  std::istringstream words(listed != nullptr ? listed : "this=" APPSRV_BINARY);
  for (std::string word; words >> word;) {
    size_t equals = word.find('=');
    Build build{word.substr(0, equals), std::make_unique<e2e::Daemon>()};
    build.daemon->set_binary(word.substr(equals + 1));
    build.daemon->behave("default", "marker");
    if (!build.daemon->start()) {
      fprintf(stderr, "daemon_bench: %s did not start: %s\n", word.c_str(), build.daemon->err().c_str());
      exit(1);
    }
    builds.push_back(std::move(build));
  }
}

void BM_List(benchmark::State& state, Build* build) {
  const std::string request = e2e::frame(e2e::encode_list());
  for (auto _ : state) {
    e2e::Connection connection(build->daemon->port());
    if (!connection.send(request) || connection.reply().rfind("names:", 0) != 0) state.SkipWithError("no list");
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Upload1KiB(benchmark::State& state, Build* build) {
  const std::string image(1024, 'i');
  uint16_t port = build->daemon->port();
  for (auto _ : state) {
    std::string name = "bench" + std::to_string(build->uploads++);
    if (e2e::greeting(port, e2e::upload_bytes(name, image)) != "deployed " + name) {
      state.SkipWithError("no greeting from the new stack");
      break;
    }
    state.PauseTiming();
    e2e::ask(port, e2e::encode_delete(name));
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

int main(int argc, char** argv) {
  start_builds();
  for (Build& build : builds) {
    benchmark::RegisterBenchmark(("list/" + build.label).c_str(), BM_List, &build)->UseRealTime();
    benchmark::RegisterBenchmark(("upload_1KiB/" + build.label).c_str(), BM_Upload1KiB, &build)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  builds.clear();
}

// What crash-safe stores cost an upload: from the deployment call until the
// new stack's program answers on the connection it inherited, for a 1 KiB and
// a 256 MiB image (daemon_ms: the part until the deployment call returned,
// the store written and the program executed), with durable stores (staging name, fsync, rename) and, in
// the same run, without them (built in place, no fsync: the manager's
// skip_sync switch), as the store was made before.
//
// Run from any directory: the working directory is a fresh one under /tmp
// (the same file system as the daemon's usual data root on this machine)
// and the stacks run the test bootstrap.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "base/socket.h"
#include "stackman/internal.h"

namespace {

std::string workdir;
int uploads = 0;

void open_manager_once() {
  if (!workdir.empty()) return;
  char pattern[] = "/tmp/appsrv-upload-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) abort();
  workdir = pattern;
  if (chdir(pattern) != 0 || system("mkdir -p runenv/image runenv/test-control data") != 0) abort();
  if (symlink(TEST_BOOTSTRAP, "runenv/image/application-server-bootstrap") != 0) abort();
  FILE* f = fopen("runenv/test-control/default", "w");
  fputs("marker\n", f);
  fclose(f);
  stackman_open("./runenv", "./stacks", "./data");
}

// One upload until the stack greets the client; the stack is destroyed
// outside the timing.
void upload_once(benchmark::State& state, const std::string& image, double* daemon_ms) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) abort();
  socket_record connection{};
  socket_load(pair[1], &connection);
  std::string name = "bench" + std::to_string(uploads++);

  state.ResumeTiming();
  auto started = std::chrono::steady_clock::now();
  stackman_stack* stack = stackman_stack_allocate(name.c_str(), image.data(), image.size(), &connection);
  // The daemon's own share: stored and the program executed.
  *daemon_ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  char c = 0;
  while (stack != nullptr && read(pair[0], &c, 1) == 1 && c != '\n') {
  }
  state.PauseTiming();

  if (stack == nullptr) state.SkipWithError(stackman_strerror());
  socket_close(&connection);
  close(pair[0]);
  if (stack != nullptr) stackman_stack_destroy(stack);
}

void BM_Upload(benchmark::State& state) {
  open_manager_once();
  stackman_state.skip_sync = state.range(0) == 0;
  std::string image(static_cast<size_t>(state.range(1)), 'i');
  double daemon_ms = 0;
  for (auto _ : state) {
    state.PauseTiming();
    upload_once(state, image, &daemon_ms);
    state.ResumeTiming();
  }
  state.counters["daemon_ms"] = benchmark::Counter(daemon_ms, benchmark::Counter::kAvgIterations);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(1));
  state.SetLabel(state.range(0) != 0 ? "durable" : "in place, no fsync");
  stackman_state.skip_sync = false;
}

// Arguments: durable (1) or not (0); image size.
BENCHMARK(BM_Upload)
    ->ArgsProduct({{0, 1}, {1024}})
    ->Iterations(1)
    ->Repetitions(40)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_Upload)
    ->ArgsProduct({{0, 1}, {256 << 20}})
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

struct Cleanup {
  ~Cleanup() {
    if (workdir.empty()) return;
    stackman_reset();
    if (system(("rm -rf '" + workdir + "'").c_str()) != 0) fprintf(stderr, "could not remove %s\n", workdir.c_str());
  }
} cleanup;

}  // namespace

BENCHMARK_MAIN();

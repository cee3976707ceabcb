// SHA-256 throughput through the hash front end on both block functions, for
// a stack-key-sized input up to inputs far larger than the caches.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "base/hash.h"
#include "base/hash.h"

namespace {

void sha256(benchmark::State& state, bool portable) {
  if (!portable && !hash_accelerated_available()) {
    state.SkipWithError("this processor lacks the SHA extensions");
    return;
  }
  hash_force_portable(portable);
  std::vector<uint8_t> input(static_cast<size_t>(state.range(0)));
  for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<uint8_t>(i * 131 + 7);
  uint8_t digest[HASH_SHA256_SIZE];
  for (auto _ : state) {
    hash_context context;
    hash_open(&context, HASH_SHA256);
    hash_write(&context, input.data(), input.size());
    hash_close(&context, digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
  hash_force_portable(false);
}

void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t size : {int64_t{64}, int64_t{4} << 10, int64_t{1} << 20, int64_t{64} << 20}) {
    b->Arg(size);
  }
}

}  // namespace

BENCHMARK_CAPTURE(sha256, accelerated, false)->Apply(sizes);
BENCHMARK_CAPTURE(sha256, portable, true)->Apply(sizes);

BENCHMARK_MAIN();

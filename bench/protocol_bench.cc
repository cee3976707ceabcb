// Parse and serialize rates of the message modules: the requests the daemon
// reads most (upload, rename) and its largest reply (a list of 1,000 names).
// Each iteration is one message's whole life, arena included, as the daemon
// lives it.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "base/bigendian.h"

#define REQ(name) image___appsrv_protocol_request___##name
#define REP(name) image___appsrv_protocol_reply___##name

namespace {

void put32(std::string* bytes, uint32_t value) {
  uint8_t raw[4];
  bigendian_store32(raw, value);
  bytes->append(reinterpret_cast<const char*>(raw), 4);
}

void put_text(std::string* bytes, const std::string& text) {
  put32(bytes, static_cast<uint32_t>(text.size()));
  bytes->append(text);
}

void parse_request(benchmark::State& state, const std::string& bytes) {
  for (auto _ : state) {
    dympage* arena = REQ(create_allocator_f)();
    auto* root = REQ(root_t___allocate_f)(arena);
    istream* input = istream_create_memory(bytes.data(), bytes.size());
    if (REQ(parse_bin_f)(arena, root, input) != 0) state.SkipWithError(root->failure_reason);
    istream_destroy(input);
    benchmark::DoNotOptimize(root->type.payload);
    REQ(destroy_allocator_f)(arena);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

void BM_ParseUpload(benchmark::State& state) {
  std::string bytes(message_fingerprint, MESSAGE_FINGERPRINT_SIZE);
  put32(&bytes, 4);
  uint8_t size[8];
  bigendian_store64(size, 1 << 20);
  bytes.append(reinterpret_cast<const char*>(size), 8);
  put_text(&bytes, "application-stack");
  parse_request(state, bytes);
}
BENCHMARK(BM_ParseUpload);

void BM_ParseRename(benchmark::State& state) {
  std::string bytes(message_fingerprint, MESSAGE_FINGERPRINT_SIZE);
  put32(&bytes, 2);
  put_text(&bytes, "new-stack-name");
  put_text(&bytes, "old-stack-name");
  parse_request(state, bytes);
}
BENCHMARK(BM_ParseRename);

// Builds the reply (1,000 names added in scrambled order) and serializes it.
void BM_SerializeList(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  std::vector<std::string> names;
  for (int i = 0; i < count; i++) names.push_back("stack-" + std::to_string((i * 7919) % count));
  uint64_t written = 0;
  for (auto _ : state) {
    dympage* arena = REP(create_allocator_f)();
    auto* root = REP(root_t___allocate_f)(arena);
    auto* success = REP(root_t___status___iwrite_setto___success)(arena, root);
    auto* data = REP(root___status___success_t___type___iwrite_setto___data)(arena, success);
    for (const std::string& name : names)
      REP(root___status___success___type___data_t___stack_names___iwrite_create_entry)(arena, data, name.c_str());
    REP(finalize_f)(root);
    char* buffer = nullptr;
    uint64_t length = 0;
    ostream* output = ostream_create_memory(&buffer, &length);
    if (REP(serialize_bin_f)(root, output) != 0) state.SkipWithError(root->failure_reason);
    ostream_destroy(output);
    written = length;
    free(buffer);
    REP(destroy_allocator_f)(arena);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(written));
}
BENCHMARK(BM_SerializeList)->Arg(1000);

// Serializing alone, the tree built once: the cost of walking 1,000 names.
void BM_SerializeListPrebuilt(benchmark::State& state) {
  dympage* arena = REP(create_allocator_f)();
  auto* root = REP(root_t___allocate_f)(arena);
  auto* success = REP(root_t___status___iwrite_setto___success)(arena, root);
  auto* data = REP(root___status___success_t___type___iwrite_setto___data)(arena, success);
  for (int64_t i = 0; i < state.range(0); i++)
    REP(root___status___success___type___data_t___stack_names___iwrite_create_entry)(
        arena, data, ("stack-" + std::to_string(i)).c_str());
  char* buffer = nullptr;
  uint64_t length = 0;
  for (auto _ : state) {
    ostream* output = ostream_create_memory(&buffer, &length);
    if (REP(serialize_bin_f)(root, output) != 0) state.SkipWithError(root->failure_reason);
    ostream_destroy(output);
  }
  free(buffer);
  REP(destroy_allocator_f)(arena);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SerializeListPrebuilt)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();

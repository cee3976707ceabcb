// libFuzzer target: the management request parser on arbitrary bytes. Besides
// the sanitizers' own findings it checks the one property that the parser
// promises: a request accepted whole, with its type chosen and no refusal
// recorded, serializes back to exactly the bytes it was read from.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/istream.h"
#include "base/ostream.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"

#define REQ(name) image___appsrv_protocol_request___##name

namespace {

// Small pages: the page size does not change the parser's paths, and a
// 10 MiB page per input would slow the run down to a crawl under ASan.
constexpr uint64_t kPageSize = 64 * 1024;

void check_round_trip(REQ(root_t)* root, const uint8_t* data, size_t size) {
  char* buffer = nullptr;
  uint64_t length = 0;
  ostream* output = ostream_create_memory(&buffer, &length);
  int result = REQ(serialize_bin_f)(root, output);
  ostream_destroy(output);
  if (result != 0 || length != size || memcmp(buffer, data, size) != 0) abort();
  free(buffer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  dympage* arena = dympage_create2(kPageSize);
  auto* root = REQ(root_t___allocate_f)(arena);
  istream* input = istream_create_memory(data, size);
  int result = REQ(parse_bin_f)(arena, root, input);
  istream_destroy(input);
  if (result == 0) REQ(finalize_f)(root);
  if (result == 0 && root->type.set && root->failure_reason == nullptr) check_round_trip(root, data, size);
  if (result != 0 && root->failure_reason == nullptr) abort();  // every failure has its reason
  dympage_destroy(arena);
  return 0;
}

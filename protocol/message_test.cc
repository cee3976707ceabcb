// The common machinery: big-endian primitives, the failure hook, and the
// recovery point as a user arms it.
#include <gtest/gtest.h>

#include <vector>

#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "protocol/message_testing.h"

#define REQ(name) image___appsrv_protocol_request___##name

namespace {

TEST(BigEndian, MostSignificantByteFirst) {
  uint8_t bytes[8];
  bigendian_store32(bytes, 0x01020384u);
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 4), (std::vector<uint8_t>{0x01, 0x02, 0x03, 0x84}));
  EXPECT_EQ(bigendian_load32(bytes), 0x01020384u);
  bigendian_store64(bytes, static_cast<uint64_t>(int64_t{-2}));
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 8), (std::vector<uint8_t>{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe}));
  EXPECT_EQ(static_cast<int64_t>(bigendian_load64(bytes)), -2);
  bigendian_store64(bytes, 0x8000000000000001u);
  EXPECT_EQ(bigendian_load64(bytes), 0x8000000000000001u);
}

struct HookLog {
  message_root* root;
  std::string text;
  const char* reason_when_called;
};
std::vector<HookLog> hook_calls;

void record_hook(message_root* root, const char* text) {
  hook_calls.push_back({root, text, root->failure_reason});
}

void recover_hook(message_root* root, const char*) { message_recover(root); }

TEST(FailureHook, RunsBeforeTheReasonIsRecorded) {
  hook_calls.clear();
  TestArena arena;
  auto* root = REQ(root_t___allocate_f)(arena);
  root->failure_hook = record_hook;
  auto* upload = REQ(root_t___type___iwrite_setto___upload)(arena, root);
  EXPECT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 0), -1);
  ASSERT_EQ(hook_calls.size(), 1u);
  EXPECT_EQ(hook_calls[0].root, root);
  EXPECT_EQ(hook_calls[0].text, "illegal value for natural number");
  EXPECT_EQ(hook_calls[0].reason_when_called, nullptr);
  EXPECT_EQ(reason_of(root), "illegal value for natural number");

  // Reader and writer failures are recorded without the hook.
  EXPECT_EQ(parse_with(&REQ(parse_bin_f), arena, REQ(root_t___allocate_f)(arena), "short"), -1);
  EXPECT_EQ(hook_calls.size(), 1u);
}

TEST(RecoveryPoint, AHookThatGoesBackAbandonsTheMessage) {
  TestArena arena;
  auto* root = REQ(root_t___allocate_f)(arena);
  root->failure_hook = recover_hook;
  bool after_refusal = false;
  message_root* caught = nullptr;
  try {
    REQ(root_t___type___iwrite_setto___list)(arena, root);
    REQ(root_t___type___iwrite_setto___list)(arena, root);
    after_refusal = true;
  } catch (const message_recovery& recovery) {
    caught = recovery.root;
  }
  EXPECT_FALSE(after_refusal);
  EXPECT_EQ(caught, root);
  EXPECT_EQ(root->failure_reason, nullptr);  // the hook left before the reason was stored
}

TEST(RecoveryPoint, ParseFailureGoesBackWithItsReason) {
  // The way the daemon handles one request.
  auto handle = [](const std::string& bytes, const char** reason) {
    dympage* arena = REQ(create_allocator_f)();
    auto* root = REQ(root_t___allocate_f)(arena);
    bool completed = false;
    try {
      istream* input = istream_create_memory(bytes.data(), bytes.size());
      int result = REQ(parse_bin_f)(arena, root, input);
      istream_destroy(input);
      if (result != 0) message_recover(root);
      if (root->type.tag != 1) message_recover(root, "not a list");
      completed = true;
    } catch (const message_recovery& recovery) {
      *reason = recovery.root->failure_reason;
    }
    REQ(destroy_allocator_f)(arena);
    return completed;
  };
  const char* reason = nullptr;
  EXPECT_TRUE(handle(Wire().u32(1).str(), &reason));
  EXPECT_EQ(reason, nullptr);
  EXPECT_FALSE(handle(Wire().u32(1).raw("!").str(), &reason));
  EXPECT_STREQ(reason, "trailing bytes");
  EXPECT_FALSE(handle(Wire().u32(0).text("a").str(), &reason));
  EXPECT_STREQ(reason, "not a list");
}

TEST(MessageArena, BlocksAndTexts) {
  dympage* arena = REQ(create_allocator_f)();
  auto* block = static_cast<uint8_t*>(REQ(allocate_block_f)(arena, 100, 64));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 64, 0u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(block), 100), std::string(100, '\0'));
  const char* original = "stack";
  char* copy = REQ(allocate_text_f)(arena, original, 5);
  EXPECT_NE(copy, original);
  EXPECT_STREQ(copy, "stack");
  REQ(allocator_warn_sup_f)();
  REQ(destroy_allocator_f)(arena);
}

}  // namespace

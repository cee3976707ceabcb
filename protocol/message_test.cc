// The common machinery: the failure hook, the recovery point as a user arms
// it, and the message arena.
#include <gtest/gtest.h>

#include <vector>

#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "protocol/message_testing.h"

#define REQ(name) image___appsrv_protocol_request___##name

namespace {

struct HookCall {
  message_root* root;
  std::string text;
  const char* reason_when_called;
};
std::vector<HookCall> hook_calls;

void record_hook(message_root* root, const char* text) { hook_calls.push_back({root, text, root->failure_reason}); }
void recover_hook(message_root* root, const char*) { message_recover(root); }

TEST(FailureHook, RunsBeforeTheReasonIsRecordedAndOnlyForSetters) {
  hook_calls.clear();
  TestArena arena;
  auto* root = REQ(root_t___allocate_f)(arena);
  root->failure_hook = record_hook;
  auto* upload = REQ(root_t___type___iwrite_setto___upload)(arena, root);
  EXPECT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 0), -1);
  ASSERT_EQ(hook_calls.size(), 1u);
  EXPECT_EQ(hook_calls[0].root, root);  // reached from the payload through the context references
  EXPECT_EQ(hook_calls[0].text, "illegal value for natural number");
  EXPECT_EQ(hook_calls[0].reason_when_called, nullptr);
  EXPECT_EQ(reason_of(root), "illegal value for natural number");
  EXPECT_EQ(parse_with(&REQ(parse_bin_f), arena, root, "short"), -1);  // reader failures skip the hook
  EXPECT_EQ(hook_calls.size(), 1u);
}

TEST(RecoveryPoint, AHookThatGoesBackAbandonsTheMessage) {
  TestArena arena;
  auto* root = REQ(root_t___allocate_f)(arena);
  root->failure_hook = recover_hook;
  message_root* caught = nullptr;
  try {
    REQ(root_t___type___iwrite_setto___list)(arena, root);
    REQ(root_t___type___iwrite_setto___list)(arena, root);
    ADD_FAILURE() << "the refused setter returned";
  } catch (const message_recovery& recovery) {
    caught = recovery.root;
  }
  EXPECT_EQ(caught, root);
  EXPECT_EQ(root->failure_reason, nullptr);  // the hook left before the reason was stored
}

TEST(RecoveryPoint, FailuresGoBackWithTheirReason) {
  // The way the daemon handles one request; null when it completes.
  auto handle = [](const std::string& bytes) -> const char* {
    dympage* arena = REQ(create_allocator_f)();
    auto* root = REQ(root_t___allocate_f)(arena);
    const char* reason = nullptr;
    try {
      if (parse_with(&REQ(parse_bin_f), arena, root, bytes) != 0) message_recover(root);
      if (root->type.tag != 1) message_recover(root, "not a list");
    } catch (const message_recovery& recovery) {
      reason = recovery.root->failure_reason;
    }
    REQ(destroy_allocator_f)(arena);
    return reason;
  };
  EXPECT_EQ(handle(Wire().u32(1).str()), nullptr);
  EXPECT_STREQ(handle(Wire().u32(1).raw("!").str()), "trailing bytes");
  EXPECT_STREQ(handle(Wire().u32(0).text("a").str()), "not a list");
}

TEST(MessageArena, BlocksComeZeroFilledAndAlignedTextsAreCopied) {
  dympage* arena = REQ(create_allocator_f)();
  auto* block = static_cast<char*>(REQ(allocate_block_f)(arena, 100, 64));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 64, 0u);
  EXPECT_EQ(std::string(block, 100), std::string(100, '\0'));
  const char* original = "stack";
  char* copy = REQ(allocate_text_f)(arena, original, 5);
  EXPECT_NE(copy, original);
  EXPECT_STREQ(copy, "stack");
  REQ(destroy_allocator_f)(arena);
}

}  // namespace

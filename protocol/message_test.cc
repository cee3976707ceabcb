// The common machinery: the failure hook and the recovery point.
#include <gtest/gtest.h>

#include <vector>

#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "tests/support/message_testing.h"

#define REQ(name) image___appsrv_protocol_request___##name

namespace {

struct HookCall {
  message_root* root;
  std::string text;
  const char* reason_when_called;
};
std::vector<HookCall> hook_calls;

void record_hook(message_root* root, const char* text) { hook_calls.push_back({root, text, root->failure_reason}); }

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
  EXPECT_STREQ(root->failure_reason, "illegal value for natural number");
  EXPECT_EQ(parse_with(&REQ(parse_bin_f), arena, root, "short"), -1);  // reader failures skip the hook
  EXPECT_EQ(hook_calls.size(), 1u);
}

TEST(RecoveryPoint, GoingBackKeepsTheRecordedReasonOrStoresTheOneGiven) {
  TestArena arena;
  auto* root = REQ(root_t___allocate_f)(arena);
  EXPECT_EQ(parse_with(&REQ(parse_bin_f), arena, root, Wire().u32(1).raw("!").str()), -1);
  EXPECT_THROW(message_recover(root), message_recovery);
  EXPECT_STREQ(root->failure_reason, "trailing bytes");
  EXPECT_THROW(message_recover(root, "end-of-stream"), message_recovery);
  EXPECT_STREQ(root->failure_reason, "end-of-stream");
}

}  // namespace

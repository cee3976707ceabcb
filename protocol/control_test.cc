// The stack control module: its byte layout, the nested channel variant, and
// the way back through the parser that a stack uses.
#include <gtest/gtest.h>

#include "protocol/message_testing.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"

#define CTL(name) image___os_internal_protocol___##name

namespace {

using Root = CTL(root_t);
using Text = CTL(root___type___text_t);

struct Control {
  TestArena arena;
  Root* root = CTL(root_t___allocate_f)(arena);

  // A null text leaves the field unwritten.
  CTL(root___type___set_name_t)* set_name(const char* name) {
    auto* payload = CTL(root_t___type___iwrite_setto___set_name)(arena, root);
    if (name != nullptr) CTL(root___type___set_name_t___name___iwrite_set)(arena, payload, name);
    return payload;
  }
  std::string bytes(int* result = nullptr, int64_t capacity = -1) {
    CTL(finalize_f)(root);
    return serialize_with(&CTL(serialize_bin_f), root, result, capacity);
  }
};

TEST(ControlLayout, ExamplesAndUnwrittenFieldsGoingOutEmpty) {
  Control named, shutdown, sockpass, info, nameless, bare;
  named.set_name("alpha");
  CTL(root_t___type___iwrite_setto___shutdown)(shutdown.arena, shutdown.root);
  CTL(root_t___type___iwrite_setto___sockpass)(sockpass.arena, sockpass.root);
  Text* text = CTL(root_t___type___iwrite_setto___text)(info.arena, info.root);
  ASSERT_NE(CTL(root___type___text_t___channel___iwrite_setto___info)(info.arena, text), nullptr);
  CTL(root___type___text_t___line___iwrite_set)(info.arena, text, "ready");
  nameless.set_name(nullptr);
  CTL(root_t___type___iwrite_setto___text)(bare.arena, bare.root);  // no channel, no line
  // Each is also written into a stream one byte too short, and the failure names the primitive cut.
  const struct { Control* message; std::string bytes; size_t size; const char* cut; } examples[] = {
      {&named, Wire().u32(0).text("alpha").str(), 77, "output stream error [text]"},
      {&shutdown, Wire().u32(1).str(), 68, "output stream error [uint32]"},
      {&sockpass, Wire().u32(2).str(), 68, "output stream error [uint32]"},
      {&info, Wire().u32(3).u32(1).text("ready").str(), 81, "output stream error [text]"},
      {&nameless, Wire().u32(0).u32(0).str(), 72, "output stream error [uint32]"},
      {&bare, Wire().u32(3).u32(0).u32(0).str(), 76, "output stream error [uint32]"}};  // channel 0 is error
  for (const auto& example : examples) {
    int result;
    EXPECT_EQ(example.message->bytes(&result), example.bytes) << example.size;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(example.bytes.size(), example.size);
    EXPECT_EQ(example.message->bytes(&result, static_cast<int64_t>(example.size) - 1).size(), example.size - 1);
    EXPECT_EQ(result, -1);
    EXPECT_STREQ(example.message->root->failure_reason, example.cut) << example.size;
  }
}

TEST(ControlSetters, WriteOnce) {
  Control sockpass, line, named;
  ASSERT_NE(CTL(root_t___type___iwrite_setto___sockpass)(sockpass.arena, sockpass.root), nullptr);
  EXPECT_EQ(CTL(root_t___type___iwrite_setto___shutdown)(sockpass.arena, sockpass.root), nullptr);
  EXPECT_STREQ(sockpass.root->failure_reason, "reassigning property: type");
  EXPECT_EQ(sockpass.bytes(), Wire().u32(2).str());

  Text* text = CTL(root_t___type___iwrite_to___text)(line.arena, line.root);
  auto* error = CTL(root___type___text_t___channel___iwrite_to___error)(line.arena, text);
  EXPECT_EQ(error->context, text);
  EXPECT_EQ(CTL(root___type___text_t___channel___iwrite_to___info)(line.arena, text), nullptr);
  EXPECT_STREQ(line.root->failure_reason, "reassigning property: channel");  // through two context references
  CTL(root___type___text_t___line___iwrite_set)(line.arena, text, "one");
  EXPECT_EQ(CTL(root___type___text_t___line___iwrite_alloc)(line.arena, text, 3), nullptr);
  EXPECT_STREQ(line.root->failure_reason, "reassigning property: line");
  EXPECT_EQ(CTL(root___type___set_name_t___name___iwrite_set)(named.arena, named.set_name("a"), "b"), -1);
  EXPECT_STREQ(named.root->failure_reason, "reassigning property: name");
}

TEST(ControlParse, RoundTripAndTheNestedUnknownTag) {
  Control info, tail, whole;
  const std::string bytes = Wire().u32(3).u32(1).text("ready").str();
  ASSERT_EQ(parse_with(&CTL(parse_bin_f), info.arena, info.root, bytes), 0);
  EXPECT_EQ(info.bytes(), bytes);
  // An unknown channel ends the reading there: the line is left unread.
  const std::string unknown = Wire().u32(3).u32(2).text("x").str();
  int64_t unread;
  ASSERT_EQ(parse_with(&CTL(parse_bin_tail_f), tail.arena, tail.root, unknown, &unread), 0);
  EXPECT_EQ(unread, 5);
  EXPECT_FALSE(static_cast<Text*>(tail.root->type.payload)->channel.set);
  EXPECT_EQ(parse_with(&CTL(parse_bin_f), whole.arena, whole.root, unknown), -1);
  EXPECT_STREQ(whole.root->failure_reason, "trailing bytes");
}

}  // namespace

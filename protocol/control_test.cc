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
    int ignored;
    CTL(finalize_f)(root);
    return serialize_with(&CTL(serialize_bin_f), root, result != nullptr ? result : &ignored, capacity);
  }
};

TEST(ControlLayout, ExamplesAndUnwrittenFieldsGoingOutEmpty) {
  Control named, shutdown, sockpass, info, empty_name, nameless, bare;
  named.set_name("alpha");
  CTL(root_t___type___iwrite_setto___shutdown)(shutdown.arena, shutdown.root);
  CTL(root_t___type___iwrite_setto___sockpass)(sockpass.arena, sockpass.root);
  Text* text = CTL(root_t___type___iwrite_setto___text)(info.arena, info.root);
  ASSERT_NE(CTL(root___type___text_t___channel___iwrite_setto___info)(info.arena, text), nullptr);
  CTL(root___type___text_t___line___iwrite_set)(info.arena, text, "ready");
  empty_name.set_name("");
  nameless.set_name(nullptr);
  CTL(root_t___type___iwrite_setto___text)(bare.arena, bare.root);  // no channel, no line
  const struct { Control* message; std::string bytes; size_t size; } examples[] = {
      {&named, Wire().u32(0).text("alpha").str(), 77},  {&shutdown, Wire().u32(1).str(), 68},
      {&sockpass, Wire().u32(2).str(), 68},             {&info, Wire().u32(3).u32(1).text("ready").str(), 81},
      {&empty_name, Wire().u32(0).u32(0).str(), 72},    {&nameless, Wire().u32(0).u32(0).str(), 72},
      {&bare, Wire().u32(3).u32(0).u32(0).str(), 76}};  // channel tag 0 is error
  for (const auto& example : examples) {
    int result;
    EXPECT_EQ(example.message->bytes(&result), example.bytes) << example.size;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(example.bytes.size(), example.size);
  }
}

TEST(ControlSetters, WriteOnce) {
  Control sockpass, line, named;
  ASSERT_NE(CTL(root_t___type___iwrite_setto___sockpass)(sockpass.arena, sockpass.root), nullptr);
  EXPECT_EQ(CTL(root_t___type___iwrite_setto___shutdown)(sockpass.arena, sockpass.root), nullptr);
  EXPECT_EQ(reason_of(sockpass.root), "reassigning property: type");
  EXPECT_EQ(sockpass.bytes(), Wire().u32(2).str());

  Text* text = CTL(root_t___type___iwrite_to___text)(line.arena, line.root);
  auto* error = CTL(root___type___text_t___channel___iwrite_to___error)(line.arena, text);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->context, text);
  EXPECT_EQ(CTL(root___type___text_t___channel___iwrite_to___error)(line.arena, text), error);
  EXPECT_EQ(CTL(root___type___text_t___channel___iwrite_to___info)(line.arena, text), nullptr);
  EXPECT_EQ(reason_of(line.root), "reassigning property: channel");  // reached through two context references
  CTL(root___type___text_t___line___iwrite_set)(line.arena, text, "one");
  EXPECT_EQ(CTL(root___type___text_t___line___iwrite_alloc)(line.arena, text, 3), nullptr);
  EXPECT_EQ(reason_of(line.root), "reassigning property: line");

  EXPECT_EQ(CTL(root___type___set_name_t___name___iwrite_set)(named.arena, named.set_name("a"), "b"), -1);
  EXPECT_EQ(reason_of(named.root), "reassigning property: name");
}

TEST(ControlParse, RoundTripAndTheNestedUnknownTag) {
  Control info;
  const std::string bytes = Wire().u32(3).u32(1).text("ready").str();
  ASSERT_EQ(parse_with(&CTL(parse_bin_f), info.arena, info.root, bytes), 0);
  EXPECT_EQ(info.bytes(), bytes);

  // An unknown channel ends the reading there: the line is not read, and a
  // whole parse then finds its bytes trailing.
  const std::string unknown = Wire().u32(3).u32(2).text("x").str();
  Control tail, whole;
  int64_t unread;
  ASSERT_EQ(parse_with(&CTL(parse_bin_tail_f), tail.arena, tail.root, unknown, &unread), 0);
  EXPECT_EQ(unread, 5);
  EXPECT_TRUE(tail.root->type.set);
  EXPECT_FALSE(static_cast<Text*>(tail.root->type.payload)->channel.set);
  EXPECT_EQ(parse_with(&CTL(parse_bin_f), whole.arena, whole.root, unknown), -1);
  EXPECT_EQ(reason_of(whole.root), "trailing bytes");
}

TEST(ControlWriter, ShortOutputNamesThePrimitive) {
  Control message;
  Text* text = CTL(root_t___type___iwrite_setto___text)(message.arena, message.root);
  CTL(root___type___text_t___line___iwrite_set)(message.arena, text, "ready");
  const std::pair<int64_t, const char*> cases[] = {{32, "output stream error [fingerprint]"},
                                                   {70, "output stream error [uint32]"},
                                                   {75, "output stream error [uint32]"},
                                                   {80, "output stream error [text]"}};
  for (auto [capacity, reason] : cases) {
    message.root->failure_reason = nullptr;
    int result;
    message.bytes(&result, capacity);
    EXPECT_EQ(result, -1) << capacity;
    EXPECT_EQ(reason_of(message.root), reason) << capacity;
  }
}

}  // namespace

// The stack control module: its byte layout, the nested channel variant, and
// the way back through the parser that a stack uses.
#include <gtest/gtest.h>

#include "tests/support/message_testing.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"

#define CTL(name) image___os_internal_protocol___##name

namespace {

using Root = CTL(root_t);
using Text = CTL(root___type___text_t);

struct Control {
  TestArena arena;
  Root* root = CTL(root_t___allocate_f)(arena);

  std::string bytes() {
    CTL(finalize_f)(root);
    return serialize_with(&CTL(serialize_bin_f), root);
  }
};

TEST(ControlLayout, ExamplesAndUnwrittenFieldsGoingOutEmpty) {
  Control named, shutdown, sockpass, info, nameless, bare;
  CTL(root___type___set_name_t___name___iwrite_set)(
      named.arena, CTL(root_t___type___iwrite_setto___set_name)(named.arena, named.root), "alpha");
  CTL(root_t___type___iwrite_setto___shutdown)(shutdown.arena, shutdown.root);
  CTL(root_t___type___iwrite_setto___sockpass)(sockpass.arena, sockpass.root);
  Text* text = CTL(root_t___type___iwrite_setto___text)(info.arena, info.root);
  ASSERT_NE(CTL(root___type___text_t___channel___iwrite_setto___info)(info.arena, text), nullptr);
  CTL(root___type___text_t___line___iwrite_set)(info.arena, text, "ready");
  CTL(root_t___type___iwrite_setto___set_name)(nameless.arena, nameless.root);  // no name
  CTL(root_t___type___iwrite_setto___text)(bare.arena, bare.root);  // no channel, no line
  const struct { Control* message; std::string bytes; } examples[] = {
      {&named, Wire().u32(0).text("alpha").str()},
      {&shutdown, Wire().u32(1).str()},
      {&sockpass, Wire().u32(2).str()},
      {&info, Wire().u32(3).u32(1).text("ready").str()},
      {&nameless, Wire().u32(0).u32(0).str()},
      {&bare, Wire().u32(3).u32(0).u32(0).str()}};  // channel 0 is error
  for (const auto& example : examples) EXPECT_EQ(example.message->bytes(), example.bytes);
}

TEST(ControlParse, RoundTripAndTheNestedUnknownTag) {
  Control info, unknown;
  const std::string bytes = Wire().u32(3).u32(1).text("ready").str();
  ASSERT_EQ(parse_with(&CTL(parse_bin_f), info.arena, info.root, bytes), 0);
  EXPECT_EQ(info.bytes(), bytes);
  // An unknown channel ends the reading there, so the line is a trailing byte.
  EXPECT_EQ(parse_with(&CTL(parse_bin_f), unknown.arena, unknown.root, Wire().u32(3).u32(2).text("x").str()), -1);
  EXPECT_FALSE(static_cast<Text*>(unknown.root->type.payload)->channel.set);
  EXPECT_STREQ(unknown.root->failure_reason, "trailing bytes");
}

}  // namespace

// The stack control module: its byte layout, the nested channel variant, and
// the way back through the parser that the stack runtime uses.
#include <gtest/gtest.h>

#include "protocol/message_testing.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"

#define CTL(name) image___os_internal_protocol___##name

namespace {

using Root = CTL(root_t);
using Text = CTL(root___type___text_t);

std::string bytes_of(Root* root, int* result = nullptr, int64_t capacity = -1) {
  int ignored;
  CTL(finalize_f)(root);
  return serialize_with(&CTL(serialize_bin_f), root, result != nullptr ? result : &ignored, capacity);
}

TEST(ControlLayout, Examples) {
  TestArena arena;
  Root* named = CTL(root_t___allocate_f)(arena);
  auto* set_name = CTL(root_t___type___iwrite_setto___set_name)(arena, named);
  CTL(root___type___set_name_t___name___iwrite_set)(arena, set_name, "alpha");
  std::string bytes = bytes_of(named);
  ASSERT_EQ(bytes.size(), 77u);
  EXPECT_EQ(bytes.substr(0, 8), "d95b246c");
  EXPECT_EQ(bytes.substr(60, 4), "2582");
  EXPECT_EQ(bytes.substr(64), std::string("\0\0\0\0\0\0\0\x05" "alpha", 13));

  Root* shutdown = CTL(root_t___allocate_f)(arena);
  CTL(root_t___type___iwrite_setto___shutdown)(arena, shutdown);
  EXPECT_EQ(bytes_of(shutdown), Wire().u32(1).str());

  Root* sockpass = CTL(root_t___allocate_f)(arena);
  CTL(root_t___type___iwrite_setto___sockpass)(arena, sockpass);
  EXPECT_EQ(bytes_of(sockpass), Wire().u32(2).str());

  Root* info = CTL(root_t___allocate_f)(arena);
  Text* text = CTL(root_t___type___iwrite_setto___text)(arena, info);
  ASSERT_NE(CTL(root___type___text_t___channel___iwrite_setto___info)(arena, text), nullptr);
  CTL(root___type___text_t___line___iwrite_set)(arena, text, "ready");
  bytes = bytes_of(info);
  ASSERT_EQ(bytes.size(), 81u);
  EXPECT_EQ(bytes, Wire().u32(3).u32(1).text("ready").str());
}

TEST(ControlLayout, UnwrittenFieldsGoOutEmpty) {
  TestArena arena;
  Root* nameless = CTL(root_t___allocate_f)(arena);
  CTL(root_t___type___iwrite_setto___set_name)(arena, nameless);
  EXPECT_EQ(bytes_of(nameless), Wire().u32(0).u32(0).str());

  Root* empty_name = CTL(root_t___allocate_f)(arena);
  CTL(root___type___set_name_t___name___iwrite_set)(arena, CTL(root_t___type___iwrite_setto___set_name)(arena, empty_name), "");
  EXPECT_EQ(bytes_of(empty_name).size(), 72u);

  // No channel chosen: tag 0, the error channel; no line: the empty text.
  Root* bare = CTL(root_t___allocate_f)(arena);
  CTL(root_t___type___iwrite_setto___text)(arena, bare);
  EXPECT_EQ(bytes_of(bare), Wire().u32(3).u32(0).u32(0).str());
}

TEST(ControlSetters, WriteOnce) {
  TestArena arena;
  Root* root = CTL(root_t___allocate_f)(arena);
  ASSERT_NE(CTL(root_t___type___iwrite_setto___sockpass)(arena, root), nullptr);
  EXPECT_EQ(CTL(root_t___type___iwrite_setto___shutdown)(arena, root), nullptr);
  EXPECT_EQ(reason_of(root), "reassigning property: type");
  EXPECT_EQ(bytes_of(root), Wire().u32(2).str());

  Root* line_root = CTL(root_t___allocate_f)(arena);
  Text* text = CTL(root_t___type___iwrite_to___text)(arena, line_root);
  auto* error = CTL(root___type___text_t___channel___iwrite_to___error)(arena, text);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->context, text);
  EXPECT_EQ(text->context, line_root);
  EXPECT_EQ(CTL(root___type___text_t___channel___iwrite_to___error)(arena, text), error);
  EXPECT_EQ(CTL(root___type___text_t___channel___iwrite_to___info)(arena, text), nullptr);
  EXPECT_EQ(reason_of(line_root), "reassigning property: channel");
  CTL(root___type___text_t___line___iwrite_set)(arena, text, "one");
  EXPECT_EQ(CTL(root___type___text_t___line___iwrite_alloc)(arena, text, 3), nullptr);
  EXPECT_EQ(reason_of(line_root), "reassigning property: line");
  Root* named = CTL(root_t___allocate_f)(arena);
  auto* set_name = CTL(root_t___type___iwrite_setto___set_name)(arena, named);
  CTL(root___type___set_name_t___name___iwrite_set)(arena, set_name, "a");
  EXPECT_EQ(CTL(root___type___set_name_t___name___iwrite_set)(arena, set_name, "b"), -1);
  EXPECT_EQ(reason_of(named), "reassigning property: name");
}

TEST(ControlParse, RoundTripAndTheNestedUnknownTag) {
  TestArena arena;
  Root* root = CTL(root_t___allocate_f)(arena);
  std::string bytes = Wire().u32(3).u32(1).text("ready").str();
  ASSERT_EQ(parse_with(&CTL(parse_bin_f), arena, root, bytes), 0);
  auto* text = static_cast<Text*>(root->type.payload);
  EXPECT_EQ(text->channel.tag, 1u);
  EXPECT_STREQ(text->line.text, "ready");
  EXPECT_EQ(bytes_of(root), bytes);

  // An unknown channel ends the reading there: the line is not read, and a
  // whole parse then finds its bytes trailing.
  std::string unknown = Wire().u32(3).u32(2).text("x").str();
  Root* tail = CTL(root_t___allocate_f)(arena);
  int64_t unread;
  ASSERT_EQ(parse_with(&CTL(parse_bin_tail_f), arena, tail, unknown, &unread), 0);
  EXPECT_EQ(unread, 5);
  auto* open = static_cast<Text*>(tail->type.payload);
  EXPECT_TRUE(tail->type.set);
  EXPECT_FALSE(open->channel.set);
  EXPECT_FALSE(open->line.set);
  Root* whole = CTL(root_t___allocate_f)(arena);
  EXPECT_EQ(parse_with(&CTL(parse_bin_f), arena, whole, unknown), -1);
  EXPECT_EQ(reason_of(whole), "trailing bytes");
}

TEST(ControlWriter, ShortOutput) {
  TestArena arena;
  Root* root = CTL(root_t___allocate_f)(arena);
  Text* text = CTL(root_t___type___iwrite_setto___text)(arena, root);
  CTL(root___type___text_t___channel___iwrite_setto___error)(arena, text);
  CTL(root___type___text_t___line___iwrite_set)(arena, text, "ready");
  for (auto [capacity, reason] : {std::pair{int64_t{32}, "output stream error [fingerprint]"},
                                  std::pair{int64_t{70}, "output stream error [uint32]"},
                                  std::pair{int64_t{75}, "output stream error [uint32]"},
                                  std::pair{int64_t{80}, "output stream error [text]"}}) {
    int result;
    bytes_of(root, &result, capacity);
    EXPECT_EQ(result, -1) << capacity;
    EXPECT_EQ(reason_of(root), reason) << capacity;
  }
}

}  // namespace

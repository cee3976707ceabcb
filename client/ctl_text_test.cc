#include "client/ctl_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

TEST(CtlText, NamesFollowTheDaemonsRule) {
  EXPECT_TRUE(ctl_name_valid("a/b c.d"));
  EXPECT_TRUE(ctl_name_valid(std::string(1023, 'n')));
  EXPECT_TRUE(ctl_name_valid("\x01\x1b[31m\x7f\xc3\xa9")) << "other control bytes are the daemon's business";
  EXPECT_FALSE(ctl_name_valid(""));
  EXPECT_FALSE(ctl_name_valid(std::string(1024, 'n')));
  EXPECT_FALSE(ctl_name_valid("a\0b"s));
  for (char c : {'\a', '\b', '\f', '\n', '\r', '\t', '\v'}) EXPECT_FALSE(ctl_name_valid("a"s + c + "b")) << int(c);
}

TEST(CtlText, ReasonsMapToStatuses) {
  EXPECT_EQ(ctl_status_of_reason("unknown name"), CTL_UNKNOWN_NAME);
  EXPECT_EQ(ctl_status_of_reason("duplicate name"), CTL_DUPLICATE_NAME);
  for (const char* other : {"invalid name", "invalid old name", "image too large", "resurrecting dead stack", "",
                            "unknown name "})
    EXPECT_EQ(ctl_status_of_reason(other), CTL_FAILED) << other;
}

TEST(CtlText, JsonStringsAreAlwaysValid) {
  EXPECT_EQ(ctl_json_string("alpha"), "\"alpha\"");
  EXPECT_EQ(ctl_json_string("a\"b\\c/d"), "\"a\\\"b\\\\c/d\"");
  EXPECT_EQ(ctl_json_string("\x01\x1b\x7f"), "\"\\u0001\\u001b\\u007f\"");
  EXPECT_EQ(ctl_json_string("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"");
  EXPECT_EQ(ctl_json_string("\xff" "a"), "\"\\ufffda\"");
  EXPECT_EQ(ctl_json_string("\xc3"), "\"\\ufffd\"") << "a sequence cut short";
  EXPECT_EQ(ctl_json_string("\xc0\xaf"), "\"\\ufffd\\ufffd\"") << "overlong form";
  EXPECT_EQ(ctl_json_string("\xed\xa0\x80"), "\"\\ufffd\\ufffd\\ufffd\"") << "surrogate";
  EXPECT_EQ(ctl_json_string(""), "\"\"");
}

TEST(CtlText, TerminalEscapingLeavesNoControlByte) {
  EXPECT_EQ(ctl_terminal_escape("plain name"), "plain name");
  EXPECT_EQ(ctl_terminal_escape("\x1b[2Jx"), "\\x1b[2Jx");
  EXPECT_EQ(ctl_terminal_escape("a\\x1b"), "a\\\\x1b") << "a literal backslash cannot pass for an escape";
  EXPECT_EQ(ctl_terminal_escape("\x7f\x01"), "\\x7f\\x01");
  EXPECT_EQ(ctl_terminal_escape("\xc2\x9b" "1m"), "\\xc2\\x9b1m") << "the C1 introducer in UTF-8";
  EXPECT_EQ(ctl_terminal_escape("\xc2\xa0\xc3\xa9"), "\xc2\xa0\xc3\xa9") << "printable UTF-8 stays";
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  for (char c : ctl_terminal_escape(all)) {
    auto byte = static_cast<unsigned char>(c);
    EXPECT_FALSE(byte < 0x20 || byte == 0x7f) << int(byte);
  }
}

TEST(CtlText, SecondsReadAsTyped) {
  EXPECT_EQ(ctl_seconds(30000), "30 s");
  EXPECT_EQ(ctl_seconds(500), "0.5 s");
  EXPECT_EQ(ctl_seconds(1250), "1.25 s");
  EXPECT_EQ(ctl_seconds(10), "0.01 s");
  EXPECT_EQ(ctl_seconds(2147483000), "2147483 s");
}

TEST(CtlText, ProgressLineShowsBytesPercentRateAndTimeLeft) {
  EXPECT_EQ(ctl_human_bytes(0), "0 B");
  EXPECT_EQ(ctl_human_bytes(1023), "1023 B");
  EXPECT_EQ(ctl_human_bytes(1536), "1.5 KiB");
  EXPECT_EQ(ctl_human_bytes(12u << 20), "12.0 MiB");
  EXPECT_EQ(ctl_human_bytes(uint64_t{3} << 40), "3.0 TiB");

  // 12 MiB of 40 MiB in 3 s: 4 MiB/s, 28 MiB to go in 7 s.
  EXPECT_EQ(ctl_progress_line(12u << 20, 40u << 20, 3000), "  12.0 MiB / 40.0 MiB   30%  4.0 MiB/s  0:07 left");
  EXPECT_EQ(ctl_progress_line(0, 40u << 20, 0), "  0 B / 40.0 MiB    0%  --/s  --:-- left");
  EXPECT_EQ(ctl_progress_line(40u << 20, 40u << 20, 1000), "  40.0 MiB / 40.0 MiB  100%  40.0 MiB/s  0:00 left");
  // 1 KiB/s with 4 MiB left: 4096 s.
  EXPECT_EQ(ctl_progress_line(1024, (4u << 20) + 1024, 1000), "  1.0 KiB / 4.0 MiB    0%  1.0 KiB/s  1:08:16 left");
}

}  // namespace

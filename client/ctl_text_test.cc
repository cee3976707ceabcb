#include "client/ctl_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;

TEST(CtlText, JsonStringsAreAlwaysValid) {
  EXPECT_EQ(ctl_json_string("a\"b\\c/d\x01\x1b\x7f"), R"("a\"b\\c/d\u0001\u001b\u007f")");
  EXPECT_EQ(ctl_json_string("\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), "\"\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"");
  // A stray byte, an overlong form, a surrogate and a sequence cut short.
  EXPECT_EQ(ctl_json_string("\xff" "a\xc0\xaf\xed\xa0\x80\xc3"), R"("\ufffda\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd")");
}

TEST(CtlText, TerminalEscapingLeavesNoControlByte) {
  EXPECT_EQ(ctl_terminal_escape("plain \x1b[2Jx\x7f"), R"(plain \x1b[2Jx\x7f)");
  EXPECT_EQ(ctl_terminal_escape("\xc2\x9b" "1m \xc2\xa0\xc3\xa9"), R"(\xc2\x9b1m )" "\xc2\xa0\xc3\xa9")
      << "the C1 introducer in UTF-8 is escaped, printable UTF-8 stays";
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  for (unsigned char c : ctl_terminal_escape(all)) EXPECT_FALSE(c < 0x20 || c == 0x7f) << int(c);
}

TEST(CtlText, SecondsReadAsTypedAndProgressShowsBytesPercentRateAndTimeLeft) {
  EXPECT_EQ(ctl_seconds(30000), "30 s");
  EXPECT_EQ(ctl_seconds(500), "0.5 s");
  EXPECT_EQ(ctl_seconds(1250), "1.25 s");
  EXPECT_EQ(ctl_human_bytes(1023), "1023 B");
  // 12 MiB of 40 MiB in 3 s: 4 MiB/s, 28 MiB to go in 7 s.
  EXPECT_EQ(ctl_progress_line(12u << 20, 40u << 20, 3000), "  12.0 MiB / 40.0 MiB   30%  4.0 MiB/s  0:07 left");
  EXPECT_EQ(ctl_progress_line(0, 40u << 20, 0), "  0 B / 40.0 MiB    0%  --/s  --:-- left");
  // 1 KiB/s with 4 MiB left: 4096 s.
  EXPECT_EQ(ctl_progress_line(1024, (4u << 20) + 1024, 1000), "  1.0 KiB / 4.0 MiB    0%  1.0 KiB/s  1:08:16 left");
}

TEST(CtlText, UptimesShowTheirTwoLargestUnits) {
  for (auto [seconds, shown] : std::vector<std::pair<uint64_t, const char*>>{
           {0, "0s"}, {59, "59s"}, {192, "3m12s"}, {3599, "59m59s"}, {7500, "2h05m"}, {86399, "23h59m"},
           {86400 * 3 + 3600 * 4 + 59, "3d04h"}}) {
    EXPECT_EQ(ctl_human_duration(seconds), shown) << seconds;
  }
}

}  // namespace

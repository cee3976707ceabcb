#include "client/ctl_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

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

TEST(CtlText, SecondsBytesUptimesAndProgressAsPeopleReadThem) {
  for (auto [shown, expected] : std::vector<std::pair<std::string, std::string>>{
           {ctl_seconds(30000), "30 s"}, {ctl_seconds(1250), "1.25 s"}, {ctl_human_bytes(1023), "1023 B"},
           // Uptimes show their two largest units.
           {ctl_human_duration(0), "0s"}, {ctl_human_duration(59), "59s"}, {ctl_human_duration(192), "3m12s"},
           {ctl_human_duration(3599), "59m59s"}, {ctl_human_duration(7500), "2h05m"},
           {ctl_human_duration(86399), "23h59m"}, {ctl_human_duration(86400 * 3 + 3600 * 4 + 59), "3d04h"},
           // 12 MiB of 40 MiB in 3 s: 4 MiB/s, 28 MiB to go in 7 s.
           {ctl_progress_line(12u << 20, 40u << 20, 3000), "  12.0 MiB / 40.0 MiB   30%  4.0 MiB/s  0:07 left"},
           {ctl_progress_line(0, 40u << 20, 0), "  0 B / 40.0 MiB    0%  --/s  --:-- left"},
           // 1 KiB/s with 4 MiB left: 4096 s.
           {ctl_progress_line(1024, (4u << 20) + 1024, 1000), "  1.0 KiB / 4.0 MiB    0%  1.0 KiB/s  1:08:16 left"},
       }) {
    EXPECT_EQ(shown, expected);
  }
}

}  // namespace

#include "protocol/management.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;

TEST(Management, NamesAreOneTo1023BytesWithoutTheSevenControlsOrAZero) {
  for (const std::string& name : {"a/b c.d"s, std::string(1023, 'n'), "\x01\x1b[31m\x7f\xc3\xa9"s})
    EXPECT_TRUE(management_name_valid(name)) << "other control bytes and UTF-8 are allowed";
  EXPECT_FALSE(management_name_valid(""));
  EXPECT_FALSE(management_name_valid(std::string(1024, 'n')));
  for (char c : {'\0', '\a', '\b', '\f', '\n', '\r', '\t', '\v'})
    EXPECT_FALSE(management_name_valid("a"s + c + "b")) << int(c);
}

TEST(Management, ReasonsMeanAnOutcomeToAClient) {
  EXPECT_EQ(management_outcome_of(MANAGEMENT_UNKNOWN_NAME), MANAGEMENT_NAME_UNKNOWN);
  EXPECT_EQ(management_outcome_of(MANAGEMENT_DUPLICATE_NAME), MANAGEMENT_NAME_TAKEN);
  for (const char* other : {MANAGEMENT_INVALID_NAME, MANAGEMENT_KEY_NOT_UNIQUE, MANAGEMENT_RESURRECTING, "unknown name "})
    EXPECT_EQ(management_outcome_of(other), MANAGEMENT_FAILED) << other;
  EXPECT_TRUE(management_worth_repeating(MANAGEMENT_RESURRECTING));
  EXPECT_FALSE(management_worth_repeating(MANAGEMENT_SPAWN_CHILD));
}

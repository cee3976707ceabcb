#include <gtest/gtest.h>

#include <vector>

#include "runenv/runenv.h"

namespace {

// The two vectors the daemon gives are taken by every start in runenv_test.cc.
TEST(RunenvArgs, RefusesEveryOtherVector) {
  using Vector = std::vector<const char*>;
  std::vector<Vector> vectors = {
      {"bootstrap"},
      {"bootstrap", "./stacks/k", "a", "./runenv", "./data/k"},
      {"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "-"},
      {"bootstrap", "", "a", "./runenv", "./data/k", "--"},
      {"bootstrap", "./stacks/k", "a", "./runenv", "", "--"},
      {"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deploy"},
      {"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deplo", "3"}};
  for (const char* descriptor : {"", "-1", "+3", "3x", "99999999999"})
    vectors.push_back({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deploy", descriptor});
  runenv_args args;
  for (Vector argv : vectors) {
    int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    EXPECT_EQ(runenv_parse_args(argc, argv.data(), &args), -1) << ::testing::PrintToString(argv);
  }
}

}  // namespace

#include <gtest/gtest.h>

#include <vector>

#include "runenv/runenv.h"

namespace {

using Vector = std::vector<const char*>;

int parse(Vector argv, runenv_args* args) {
  int argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  return runenv_parse_args(argc, argv.data(), args);
}

// Which word is which path is seen by the handlers in runenv_test.cc.
TEST(RunenvArgs, AcceptsTheStartAndTheDeployVector) {
  runenv_args args;
  ASSERT_EQ(parse({"bootstrap", "./stacks/k", "my app", "./runenv", "./data/k", "--"}, &args), 0);
  EXPECT_EQ(args.deploy_descriptor, -1);
  ASSERT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deploy", "17"}, &args), 0);
  EXPECT_EQ(args.deploy_descriptor, 17);
}

TEST(RunenvArgs, RefusesEveryOtherVector) {
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
  for (const Vector& argv : vectors) EXPECT_EQ(parse(argv, &args), -1) << ::testing::PrintToString(argv);
}

}  // namespace

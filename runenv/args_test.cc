#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "runenv/runenv.h"

namespace {

int parse(std::initializer_list<const char*> words, runenv_args* args) {
  std::vector<const char*> argv(words);
  argv.push_back(nullptr);
  return runenv_parse_args(static_cast<int>(words.size()), argv.data(), args);
}

TEST(RunenvArgs, AcceptsStartAndDeployVectors) {
  runenv_args args;
  ASSERT_EQ(parse({"bootstrap", "./stacks/k", "my app", "./runenv", "./data/k", "--"}, &args), 0);
  EXPECT_STREQ(args.stack_path, "./stacks/k");
  EXPECT_STREQ(args.name, "my app");
  EXPECT_STREQ(args.runenv_root, "./runenv");
  EXPECT_STREQ(args.store_path, "./data/k");
  EXPECT_EQ(args.deploy_descriptor, -1);

  ASSERT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deploy", "17"}, &args), 0);
  EXPECT_EQ(args.deploy_descriptor, 17);
}

TEST(RunenvArgs, RefusesMalformedVectors) {
  runenv_args args;
  EXPECT_EQ(parse({"bootstrap"}, &args), -1);
  EXPECT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k"}, &args), -1);
  EXPECT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "-"}, &args), -1);
  EXPECT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deploy"}, &args), -1);
  EXPECT_EQ(parse({"bootstrap", "", "a", "./runenv", "./data/k", "--"}, &args), -1);
  EXPECT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "", "--"}, &args), -1);
  for (const char* bad : {"", "-1", "+3", "3x", "x", "99999999999"})
    EXPECT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deploy", bad}, &args), -1)
        << "descriptor '" << bad << "'";
  EXPECT_EQ(parse({"bootstrap", "./stacks/k", "a", "./runenv", "./data/k", "--", "--deplo", "3"}, &args), -1);
}

}  // namespace

// For tests that touch the file system: each test runs in a fresh temporary
// directory that is also the working directory, so relative paths behave as
// they do for the daemon and unix socket paths stay short.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "tests/support/daemon.h"

class InScratchDir : public testing::Test {
 protected:
  InScratchDir() : previous_(std::filesystem::current_path()) {
    EXPECT_NE(mkdtemp(root_), nullptr);
    std::filesystem::current_path(root_);
  }
  ~InScratchDir() override {
    std::filesystem::current_path(previous_);
    std::filesystem::remove_all(root_);
  }
  char root_[32] = "/tmp/appsrv-test-XXXXXX";
  std::filesystem::path previous_;
};

using e2e::read_file;
using e2e::write_file;

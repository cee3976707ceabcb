#include "base/runtime.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <unistd.h>

TEST(Runtime, MessageLinesCarryTheProcessIdAndAreFlushedAtOnce) {
  std::string prefix = "[" + std::to_string(getpid()) + "] ";
  testing::internal::CaptureStderr();
  runtime_err("failed on `%zu` stacks\n", size_t{3});
  runtime_err("no newline");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), prefix + "failed on `3` stacks\n" + prefix + "no newline");
  testing::internal::CaptureStdout();
  EXPECT_EQ(runtime_log("AppSrv: %s\n", "Signaled to stop!"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), prefix + "AppSrv: Signaled to stop!\n");
}

TEST(Runtime, SleepWaitsItsMillisecondsOnTheMonotonicClock) {
  int64_t before = runtime_getclock();
  EXPECT_EQ(runtime_sleep(20), 0);
  int64_t elapsed = runtime_getclock() - before;
  EXPECT_GE(elapsed, 20);
  EXPECT_LT(elapsed, 2000);
}

TEST(RuntimeDeathTest, ARefusedAllocationEndsTheProcessLoudly) {
  EXPECT_DEATH(runtime_malloc(SIZE_MAX), "\\[[0-9]+\\] Fatal error: out of memory\n");
  EXPECT_DEATH(runtime_zalloc(SIZE_MAX), "Fatal error: out of memory");
  EXPECT_DEATH(runtime_realloc(nullptr, SIZE_MAX), "Fatal error: out of memory");
}

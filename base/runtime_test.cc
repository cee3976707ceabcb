#include "base/runtime.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <unistd.h>

TEST(Runtime, MessageLinesCarryTheProcessIdAndAreFlushedAtOnce) {
  testing::internal::CaptureStderr();
  runtime_err("Error: failed to broadcast signal to `%zu` stacks\n", size_t{3});
  runtime_err("no newline");
  runtime_err("next\n");
  std::string err = testing::internal::GetCapturedStderr();
  std::string prefix = "[" + std::to_string(getpid()) + "] ";
  EXPECT_EQ(err, prefix + "Error: failed to broadcast signal to `3` stacks\n" + prefix + "no newline" + prefix + "next\n");

  testing::internal::CaptureStdout();
  EXPECT_EQ(runtime_log("AppSrv: %s\n", "Signaled to stop!"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), prefix + "AppSrv: Signaled to stop!\n");
}

TEST(Runtime, StartupIgnoresSigpipe) {
  runtime_sighandler previous = runtime_startup();
  struct sigaction now {};
  sigaction(SIGPIPE, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_IGN);
  signal(SIGPIPE, previous);
}

TEST(Runtime, ClockIsMonotonicAndSleepWaits) {
  int64_t before = runtime_getclock();
  EXPECT_EQ(runtime_sleep(0), 0);
  EXPECT_EQ(runtime_sleep(20), 0);
  int64_t after = runtime_getclock();
  EXPECT_GE(after - before, 20);
  EXPECT_LT(after - before, 2000);
  EXPECT_EQ(runtime_pid(), getpid());
}

TEST(RuntimeDeathTest, ExhaustedHeapEndsTheProcessLoudly) {
  EXPECT_DEATH(runtime_out_of_memory(), "Fatal error: out of memory");
}

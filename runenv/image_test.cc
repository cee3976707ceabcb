#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <utility>

#include "runenv/runenv.h"

namespace {

class RunenvImage : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(directory_.data()), nullptr); }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  std::string write(const std::string& contents, mode_t mode = 0644) {
    std::string path = directory_ + "/image";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
    chmod(path.c_str(), mode);
    return path;
  }
  std::string directory_ = "/tmp/runenv-image-XXXXXX";
};

TEST_F(RunenvImage, AcceptsOnlyRegularFilesThatAreElfProgramsOrScripts) {
  const std::pair<std::string, int> cases[] = {
      {std::string("\x7f" "ELF\x02\x01\x01", 7), 0}, {std::string("\x7f" "ELF", 4), 0}, {"#!/bin/sh\necho hi\n", 0},
      {"#!", 0}, {"", -1}, {"#", -1}, {" #!/bin/sh\n", -1}, {std::string("\x7f" "EL", 3), -1},
      {std::string("\x7f" "elf", 4), -1}, {"echo hi\n", -1}, {std::string(4, '\0'), -1}};
  for (const auto& [head, result] : cases) {
    const char* reason = nullptr;
    EXPECT_EQ(runenv_image_check(write(head).c_str(), &reason), result) << ::testing::PrintToString(head);
    EXPECT_TRUE(result == 0 || reason != nullptr);  // the deployment logs it
  }
  ASSERT_EQ(mkdir((directory_ + "/sub").c_str(), 0755), 0);
  for (const std::string& other : {directory_ + "/missing", directory_ + "/sub"}) {
    const char* reason = nullptr;
    EXPECT_EQ(runenv_image_check(other.c_str(), &reason), -1) << other;
    EXPECT_NE(reason, nullptr);
  }
}

TEST_F(RunenvImage, ExecuteFollowsRead) {
  for (auto [before, after] : {std::pair<mode_t, mode_t>{0644, 0755}, {0600, 0700}, {0640, 0750}}) {
    ASSERT_EQ(runenv_image_make_executable(write("#!/bin/sh\n", before).c_str()), 0);
    EXPECT_EQ(static_cast<mode_t>(std::filesystem::status(directory_ + "/image").permissions()), after)
        << std::oct << before;
  }
  EXPECT_EQ(runenv_image_make_executable((directory_ + "/missing").c_str()), -1);
}

}  // namespace

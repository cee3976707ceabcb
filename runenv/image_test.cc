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
  void SetUp() override {
    char pattern[] = "/tmp/runenv-image-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    path_ = directory_ + "/image";
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  void write(const std::string& contents, mode_t mode = 0644) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << contents;
    chmod(path_.c_str(), mode);
  }
  std::string directory_, path_;
};

TEST_F(RunenvImage, AcceptsOnlyRegularFilesThatAreElfProgramsOrScripts) {
  const struct {
    std::string head;
    int result;
  } cases[] = {{std::string("\x7f" "ELF\x02\x01\x01", 7), 0}, {std::string("\x7f" "ELF", 4), 0},
               {"#!/bin/sh\necho hello\n", 0}, {"#!", 0}, {"", -1}, {"#", -1}, {" #!/bin/sh\n", -1},
               {std::string("\x7f" "EL", 3), -1}, {std::string("\x7f" "elf", 4), -1}, {"echo hello\n", -1},
               {std::string(4, '\0'), -1}};
  const char* reason = nullptr;
  for (const auto& c : cases) {
    write(c.head);
    reason = nullptr;
    EXPECT_EQ(runenv_image_check(path_.c_str(), &reason), c.result) << ::testing::PrintToString(c.head);
    EXPECT_TRUE(c.result == 0 || reason != nullptr);  // the deployment logs it
  }
  ASSERT_EQ(mkdir((directory_ + "/sub").c_str(), 0755), 0);
  for (const std::string& other : {directory_ + "/missing", directory_ + "/sub"}) {
    reason = nullptr;
    EXPECT_EQ(runenv_image_check(other.c_str(), &reason), -1) << other;
    EXPECT_NE(reason, nullptr);
  }
}

TEST_F(RunenvImage, ExecuteFollowsRead) {
  for (auto [before, after] : {std::pair<mode_t, mode_t>{0644, 0755}, {0600, 0700}, {0640, 0750}}) {
    write("#!/bin/sh\n", before);
    ASSERT_EQ(runenv_image_make_executable(path_.c_str()), 0);
    struct stat info {};
    ASSERT_EQ(stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, after) << std::oct << before;
  }
  EXPECT_EQ(runenv_image_make_executable((directory_ + "/missing").c_str()), -1);
}

}  // namespace

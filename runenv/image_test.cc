#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

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
  void TearDown() override {
    unlink(path_.c_str());
    rmdir((directory_ + "/sub").c_str());
    rmdir(directory_.c_str());
  }
  void write(const std::string& contents, mode_t mode = 0644) {
    FILE* f = fopen(path_.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite(contents.data(), 1, contents.size(), f);
    fclose(f);
    chmod(path_.c_str(), mode);
  }
  int check(const std::string& contents) {
    write(contents);
    const char* reason = nullptr;
    int result = runenv_image_check(path_.c_str(), &reason);
    if (result != 0) {
      EXPECT_NE(reason, nullptr);
    }
    return result;
  }
  mode_t mode() {
    struct stat info {};
    stat(path_.c_str(), &info);
    return info.st_mode & 07777;
  }
  std::string directory_;
  std::string path_;
};

TEST_F(RunenvImage, AcceptsElfProgramsAndScripts) {
  EXPECT_EQ(check(std::string("\x7f" "ELF\x02\x01\x01", 7)), 0);
  EXPECT_EQ(check(std::string("\x7f" "ELF", 4)), 0);
  EXPECT_EQ(check("#!/bin/sh\necho hello\n"), 0);
  EXPECT_EQ(check("#!"), 0);
}

TEST_F(RunenvImage, RefusesEverythingElse) {
  EXPECT_EQ(check(""), -1);
  EXPECT_EQ(check("#"), -1);
  EXPECT_EQ(check(" #!/bin/sh\n"), -1);
  EXPECT_EQ(check("\n#!/bin/sh\n"), -1);
  EXPECT_EQ(check(std::string("\x7f" "EL", 3)), -1);
  EXPECT_EQ(check(std::string("\x7f" "elf", 4)), -1);
  EXPECT_EQ(check("echo hello\n"), -1);
  EXPECT_EQ(check(std::string("\0\0\0\0", 4)), -1);
}

TEST_F(RunenvImage, RefusesWhatIsNotARegularFile) {
  const char* reason = nullptr;
  EXPECT_EQ(runenv_image_check((directory_ + "/missing").c_str(), &reason), -1);
  EXPECT_NE(reason, nullptr);
  ASSERT_EQ(mkdir((directory_ + "/sub").c_str(), 0755), 0);
  reason = nullptr;
  EXPECT_EQ(runenv_image_check((directory_ + "/sub").c_str(), &reason), -1);
  EXPECT_NE(reason, nullptr);
}

TEST_F(RunenvImage, ExecuteFollowsRead) {
  write("#!/bin/sh\n", 0644);
  ASSERT_EQ(runenv_image_make_executable(path_.c_str()), 0);
  EXPECT_EQ(mode(), 0755u);
  write("#!/bin/sh\n", 0600);
  ASSERT_EQ(runenv_image_make_executable(path_.c_str()), 0);
  EXPECT_EQ(mode(), 0700u);
  write("#!/bin/sh\n", 0640);
  ASSERT_EQ(runenv_image_make_executable(path_.c_str()), 0);
  EXPECT_EQ(mode(), 0750u);
  EXPECT_EQ(runenv_image_make_executable((directory_ + "/missing").c_str()), -1);
}

}  // namespace

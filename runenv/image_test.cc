#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <utility>

#include "runenv/runenv.h"
#include "tests/support/scratch_dir.h"

namespace {

using RunenvImage = InScratchDir;

// The file "image" with these contents and mode.
const char* image(const std::string& contents, mode_t mode = 0644) {
  write_file("image", contents);
  chmod("image", mode);
  return "image";
}

TEST_F(RunenvImage, AcceptsOnlyRegularFilesThatAreElfProgramsOrScripts) {
  const std::pair<std::string, int> cases[] = {
      {std::string("\x7f" "ELF\x02\x01\x01", 7), 0}, {std::string("\x7f" "ELF", 4), 0}, {"#!/bin/sh\necho hi\n", 0},
      {"#!", 0}, {"", -1}, {"#", -1}, {" #!/bin/sh\n", -1}, {std::string("\x7f" "EL", 3), -1},
      {std::string("\x7f" "elf", 4), -1}, {"echo hi\n", -1}, {std::string(4, '\0'), -1}};
  for (const auto& [head, result] : cases) {
    const char* reason = nullptr;
    EXPECT_EQ(runenv_image_check(image(head), &reason), result) << ::testing::PrintToString(head);
    EXPECT_TRUE(result == 0 || reason != nullptr);  // the deployment logs it
  }
  ASSERT_EQ(mkdir("sub", 0755), 0);
  for (const char* other : {"missing", "sub"}) {
    const char* reason = nullptr;
    EXPECT_EQ(runenv_image_check(other, &reason), -1) << other;
    EXPECT_NE(reason, nullptr);
  }
}

TEST_F(RunenvImage, ExecuteFollowsRead) {
  for (auto [before, after] : {std::pair<mode_t, mode_t>{0644, 0755}, {0600, 0700}, {0640, 0750}}) {
    ASSERT_EQ(runenv_image_make_executable(image("#!/bin/sh\n", before)), 0);
    EXPECT_EQ(static_cast<mode_t>(std::filesystem::status("image").permissions()), after) << std::oct << before;
  }
  EXPECT_EQ(runenv_image_make_executable("missing"), -1);
}

}  // namespace

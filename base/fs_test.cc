#include "base/fs.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <vector>

#include "tests/support/scratch_dir.h"

namespace {

struct Path {
  bucket b{};
  explicit Path(const std::string& text = "") { bucket_append(&b, text.c_str()); }
  ~Path() { bucket_release(&b); }
  std::string str() { return bucket_cstring(&b); }
};

TEST(FsPaths, JoinDirnameAndBasenameRules) {
  // {start, component, joined}: a leading slash or backslash replaces; only a slash separates.
  const char* joins[][3] = {{"a", "b", "a/b"},     {"a/", "b", "a/b"},   {"a", "/b", "/b"},
                            {"", "b", "b"},        {"x", "", "x"},       {"x", nullptr, "x"},
                            {"x", "\\y", "\\y"}, {"x\\", "y", "x\\/y"}};
  for (const auto& join : joins) {
    Path p(join[0]);
    fs_join(&p.b, join[1]);
    EXPECT_EQ(p.str(), join[2]) << "'" << join[0] << "' + '" << (join[1] ? join[1] : "null") << "'";
  }
  Path p("x"), ext("x");
  fs_joinv(&p.b, "a", "", "/b", "d", nullptr, "ignored", nullptr);
  EXPECT_EQ(p.str(), "/b/d");
  fs_join_ext(&ext.b, "name", ".tmp");
  EXPECT_EQ(ext.str(), "x/name.tmp");

  // {path, dirname, basename}; without a slash the basename is emptied, not the whole text.
  const char* splits[][3] = {{"abc", ".", ""}, {"/abc", "/", "abc"}, {"/", "/", ""},
                             {"a/b/c", "a/b", "c"}, {"a/b/", "a/b", ""}, {"", ".", ""}};
  for (const auto& split : splits) {
    Path path(split[0]), dir, base("stale");
    fs_dirname(&path.b, &dir.b);
    fs_basename(&path.b, &base.b);
    EXPECT_EQ(dir.str(), split[1]) << "dirname of '" << split[0] << "'";
    EXPECT_EQ(base.str(), split[2]) << "basename of '" << split[0] << "'";
  }
}

using FsTest = InScratchDir;

// Directories, plain files, fifos and sockets meet the daemon's start-up
// checks; what those do not show is that links are followed.
TEST_F(FsTest, TypesFollowSymbolicLinks) {
  ASSERT_EQ(system("mkdir dir && ln -s dir link && ln -s file filelink && printf 12345 > file"), 0);
  const struct { const char* name; int type; } types[] = {
      {"link", FS_TYPE_DIRECTORY}, {"filelink", FS_TYPE_FILE}, {"missing", FS_TYPE_NONE}};
  for (const auto& entry : types) {
    Path p(entry.name);
    EXPECT_EQ(fs_type(&p.b), entry.type) << entry.name;
    EXPECT_EQ(fs_exists(&p.b), entry.type != FS_TYPE_NONE) << entry.name;
  }
  Path file("file"), missing("missing"), link("link");
  EXPECT_EQ(fs_size(&file.b), 5);
  EXPECT_EQ(fs_size(&missing.b), 0);
  EXPECT_EQ(fs_get_mtime(&missing.b), -1);
  EXPECT_EQ(fs_set_mtime(&file.b, 1000000000), 0);
  EXPECT_EQ(fs_get_mtime(&file.b), 1000000000);
  EXPECT_EQ(fs_realpath(&link.b), 0);
  EXPECT_EQ(link.str(), std::filesystem::canonical("dir"));
  EXPECT_EQ(fs_realpath(&missing.b), -1);
  EXPECT_EQ(missing.str(), "missing") << "a failed resolution leaves the path as it was";
}

TEST_F(FsTest, MkdirRecursiveMakesEveryMissingParent) {
  Path nested("a/b/c"), absolute(std::string(root_) + "/x/y"), file_there("f"), under_file("f/g");
  for (Path* path : {&nested, &absolute}) {
    EXPECT_EQ(fs_mkdir_recursive(&path->b), 0);
    EXPECT_EQ(fs_type(&path->b), FS_TYPE_DIRECTORY) << path->str();
  }
  write_file("f", "data");
  EXPECT_EQ(fs_mkdir_recursive(&file_there.b), 0) << "anything at the path counts as done";
  EXPECT_EQ(fs_mkdir_recursive(&under_file.b), -1);
}

TEST_F(FsTest, RemoveRecursiveNeverFollowsSymbolicLinks) {
  ASSERT_EQ(system("mkdir -p outside tree/sub && echo precious > outside/keep && touch tree/sub/file "
                   "&& ln -s ../../outside tree/sub/link && ln -s \"$PWD/outside/keep\" tree/filelink"),
            0);
  Path tree("tree"), missing("missing"), single("single");
  EXPECT_EQ(fs_remove_recursive(&tree.b), 0);
  EXPECT_EQ(fs_exists(&tree.b), 0);
  EXPECT_EQ(read_file("outside/keep"), "precious\n");
  EXPECT_EQ(fs_remove_recursive(&missing.b), -1);
  write_file("single", "x");  // store paths may be plain files
  EXPECT_EQ(fs_remove_recursive(&single.b), 0);
  EXPECT_EQ(fs_exists(&single.b), 0);
}

bool cloexec(void* file) { return fcntl(fileno(static_cast<FILE*>(file)), F_GETFD) & FD_CLOEXEC; }

TEST_F(FsTest, FileStreamsAreCloseOnExecAndSeekFromEachOrigin) {
  Path file("data/file"), copy("copy"), big("big"), missing("missing"), no_dir("nodir/file");
  EXPECT_EQ(fs_touch_path(&file.b), 0) << "makes the directory first";
  ostream* out = fs_open_write(&file.b);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(cloexec(reinterpret_cast<ostream_stdio*>(out)->file));
  EXPECT_EQ(ostream_write_string(out, "hello world"), 11u);
  ostream_destroy(out);
  istream* in = fs_open_read(&file.b);
  ASSERT_NE(in, nullptr);
  EXPECT_TRUE(cloexec(reinterpret_cast<istream_stdio*>(in)->file));
  char got[16] = {};
  EXPECT_EQ(istream_seek_pos(in, 2, -5), 0);
  EXPECT_EQ(istream_seek_pos(in, 1, -4), 0);
  EXPECT_EQ(istream_read_len(in, got, sizeof got), 9u);
  EXPECT_STREQ(got, "llo world");
  EXPECT_EQ(istream_seek_pos(in, 7, 0), -1);
  istream_destroy(in);

  write_file("big", std::string(5000, 'z'));  // more than one round of the copy buffer
  EXPECT_EQ(fs_fcopy(&copy.b, &big.b), 0);
  EXPECT_EQ(read_file("copy"), std::string(5000, 'z'));
  EXPECT_EQ(fs_fcopy(&copy.b, &missing.b), -1);
  EXPECT_EQ(fs_touch(&file.b), 0);
  EXPECT_EQ(fs_size(&file.b), 0) << "touching truncates";
  EXPECT_EQ(fs_open_read(&missing.b), nullptr);
  EXPECT_EQ(fs_open_write(&no_dir.b), nullptr);
}

TEST_F(FsTest, DirectoryListingSkipsHiddenNamesAndClosesAtTheEnd) {
  ASSERT_EQ(system("mkdir d && touch d/.hidden d/visible"), 0);
  Path dir("d"), missing("missing");
  fs_dir iterator{};
  ASSERT_EQ(fs_dir_open(&dir.b, &iterator), 0);
  std::vector<std::string> entries;
  while (fs_dir_read(&iterator)) {
    bucket path = fs_iter_path(&iterator);
    entries.push_back(std::string(fs_iter_name(&iterator)) + " " + bucket_cstring(&path));
    bucket_release(&path);
  }
  EXPECT_EQ(entries, std::vector<std::string>{"visible d/visible"});
  EXPECT_EQ(iterator.handle, nullptr);
  EXPECT_EQ(fs_dir_open(&missing.b, &iterator), -1);
}

}  // namespace

#include "base/fs.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

struct Path {
  bucket b{};
  explicit Path(const std::string& text) { bucket_append(&b, text.c_str()); }
  Path() = default;
  ~Path() { bucket_release(&b); }
  std::string str() { return bucket_cstring(&b); }
};

std::string join(const std::string& start, std::vector<const char*> components) {
  Path p(start);
  for (const char* c : components) fs_join(&p.b, c);
  return p.str();
}

std::string dirname_of(const std::string& text) {
  Path p(text), result;
  fs_dirname(&p.b, &result.b);
  return result.str();
}

std::string basename_of(const std::string& text) {
  Path p(text), result("stale");
  fs_basename(&p.b, &result.b);
  return result.str();
}

void write_file(const std::string& path, const std::string& contents) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr) << path;
  fwrite(contents.data(), 1, contents.size(), f);
  fclose(f);
}

std::string read_file(const std::string& path) {
  std::string contents;
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return "<missing>";
  char chunk[256];
  for (size_t got; (got = fread(chunk, 1, sizeof chunk, f)) > 0;) contents.append(chunk, got);
  fclose(f);
  return contents;
}

// Each test runs in a fresh temporary directory that is also the working
// directory, so relative paths behave as they do for the daemon.
class FsTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/appsrv-fs-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    ASSERT_NE(getcwd(previous_, sizeof previous_), nullptr);
    ASSERT_EQ(chdir(root_.c_str()), 0);
  }
  void TearDown() override {
    ASSERT_EQ(chdir(previous_), 0);
    std::string command = "rm -rf '" + root_ + "'";
    ASSERT_EQ(system(command.c_str()), 0);
  }
  std::string root_;
  char previous_[4096];
};

}  // namespace

TEST(FsPaths, JoinRule) {
  EXPECT_EQ(join("a", {"b"}), "a/b");
  EXPECT_EQ(join("a/", {"b"}), "a/b");
  EXPECT_EQ(join("a", {"/b"}), "/b");
  EXPECT_EQ(join("", {"b"}), "b");
  EXPECT_EQ(join("x", {""}), "x");
  EXPECT_EQ(join("x", {nullptr}), "x");
  EXPECT_EQ(join("x", {"\\y"}), "\\y");
  EXPECT_EQ(join("x\\", {"y"}), "x\\/y") << "a trailing backslash is no separator";

  Path p("x");
  fs_joinv(&p.b, "a", "", "/b", "d", nullptr, "ignored", nullptr);
  EXPECT_EQ(p.str(), "/b/d");

  Path ext("x");
  fs_join_ext(&ext.b, "name", ".tmp");
  EXPECT_EQ(ext.str(), "x/name.tmp");
  Path no_component("x");
  fs_join_ext(&no_component.b, nullptr, ".tmp");
  EXPECT_EQ(no_component.str(), "x.tmp");
}

TEST(FsPaths, DirnameAndBasename) {
  EXPECT_EQ(dirname_of("abc"), ".");
  EXPECT_EQ(dirname_of("/abc"), "/");
  EXPECT_EQ(dirname_of("/"), "/");
  EXPECT_EQ(dirname_of("a/b/c"), "a/b");
  EXPECT_EQ(dirname_of("a/b/"), "a/b");
  EXPECT_EQ(dirname_of(""), ".");
  EXPECT_EQ(basename_of("a/b"), "b");
  EXPECT_EQ(basename_of("a/"), "");
  EXPECT_EQ(basename_of("abc"), "") << "no slash: the result is emptied, not the whole text";
}

TEST_F(FsTest, TypesFollowSymbolicLinks) {
  ASSERT_EQ(mkdir("dir", 0755), 0);
  ASSERT_EQ(symlink("dir", "link"), 0);
  ASSERT_EQ(mkfifo("fifo", 0644), 0);
  write_file("file", "12345");
  int unix_socket = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "sock");
  ASSERT_EQ(bind(unix_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(unix_socket);

  Path dir("dir"), link("link"), fifo("fifo"), file("file"), sock("sock"), missing("missing");
  EXPECT_EQ(fs_type(&dir.b), FS_TYPE_DIRECTORY);
  EXPECT_EQ(fs_type(&link.b), FS_TYPE_DIRECTORY);
  EXPECT_EQ(fs_type(&fifo.b), FS_TYPE_OTHER);
  EXPECT_EQ(fs_type(&file.b), FS_TYPE_FILE);
  EXPECT_EQ(fs_type(&sock.b), FS_TYPE_SOCKET);
  EXPECT_EQ(fs_type(&missing.b), FS_TYPE_NONE);
  EXPECT_EQ(fs_exists(&missing.b), 0);
  EXPECT_EQ(fs_exists(&fifo.b), 1);
  EXPECT_EQ(fs_size(&file.b), 5);
  EXPECT_EQ(fs_size(&missing.b), 0);
  EXPECT_EQ(fs_get_mtime(&missing.b), -1);
  EXPECT_EQ(fs_set_mtime(&file.b, 1000000000), 0);
  EXPECT_EQ(fs_get_mtime(&file.b), 1000000000);
}

TEST_F(FsTest, MkdirRecursiveMakesEveryMissingParent) {
  Path nested("a/b/c");
  EXPECT_EQ(fs_mkdir_recursive(&nested.b), 0);
  EXPECT_EQ(fs_type(&nested.b), FS_TYPE_DIRECTORY);
  Path file_there("f/g");
  Path f("f");
  EXPECT_EQ(fs_mkdir(&f.b), 0);
  EXPECT_EQ(fs_mkdir(&f.b), -1) << "an existing directory is an error for the plain form";
  write_file("f/g", "data");
  EXPECT_EQ(fs_mkdir_recursive(&file_there.b), 0) << "anything at the path counts as done";
  EXPECT_EQ(read_file("f/g"), "data");
  Path absolute(root_ + "/x/y");
  EXPECT_EQ(fs_mkdir_recursive(&absolute.b), 0);
  EXPECT_EQ(fs_type(&absolute.b), FS_TYPE_DIRECTORY);
  Path under_file("f/g/h");
  EXPECT_EQ(fs_mkdir_recursive(&under_file.b), -1);
}

TEST_F(FsTest, RemoveRecursiveNeverFollowsSymbolicLinks) {
  ASSERT_EQ(mkdir("outside", 0755), 0);
  write_file("outside/keep", "precious");
  ASSERT_EQ(mkdir("tree", 0755), 0);
  ASSERT_EQ(mkdir("tree/sub", 0755), 0);
  write_file("tree/sub/file", "x");
  ASSERT_EQ(symlink("../../outside", "tree/sub/link"), 0);
  ASSERT_EQ(symlink(("/" + root_ + "/outside/keep").c_str(), "tree/filelink"), 0);

  Path tree("tree");
  EXPECT_EQ(fs_remove_recursive(&tree.b), 0);
  EXPECT_EQ(fs_exists(&tree.b), 0);
  EXPECT_EQ(read_file("outside/keep"), "precious");

  Path missing("missing");
  EXPECT_EQ(fs_remove_recursive(&missing.b), -1);
  // The stack manager removes store paths that may be plain files.
  write_file("single", "x");
  Path single("single");
  EXPECT_EQ(fs_remove_recursive(&single.b), 0);
  EXPECT_EQ(fs_exists(&single.b), 0);
}

TEST_F(FsTest, FileStreamsTouchAndCopy) {
  Path file("data/file");
  EXPECT_EQ(fs_touch_path(&file.b), 0);
  ostream* out = fs_open_write(&file.b);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(ostream_write_string(out, "hello world"), 11u);
  ostream_destroy(out);

  istream* in = fs_open_read(&file.b);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(istream_seek_pos(in, 2, 0), 0);
  char got[16] = {};
  EXPECT_EQ(istream_read_len(in, got, sizeof got), 0u) << "origin 2 moves to the end";
  EXPECT_EQ(istream_seek_pos(in, 0, 6), 0);
  EXPECT_EQ(istream_read_len(in, got, sizeof got), 5u);
  EXPECT_STREQ(got, "world");
  EXPECT_EQ(istream_seek_pos(in, 7, 0), -1);
  istream_destroy(in);

  Path copy("copy"), missing("missing");
  EXPECT_EQ(fs_fcopy(&copy.b, &file.b), 0);
  EXPECT_EQ(read_file("copy"), "hello world");
  std::string big(5000, 'z');
  write_file("big", big);
  Path big_path("big");
  EXPECT_EQ(fs_fcopy(&copy.b, &big_path.b), 0);
  EXPECT_EQ(read_file("copy"), big);
  EXPECT_EQ(fs_fcopy(&copy.b, &missing.b), -1);
  EXPECT_EQ(read_file("copy"), "") << "the destination is truncated before the source is opened";

  EXPECT_EQ(fs_touch(&file.b), 0);
  EXPECT_EQ(fs_size(&file.b), 0);
  EXPECT_EQ(fs_open_read(&missing.b), nullptr);
  Path no_dir("nodir/file");
  EXPECT_EQ(fs_open_write(&no_dir.b), nullptr);
}

TEST_F(FsTest, DirectoryListingSkipsHiddenNames) {
  ASSERT_EQ(mkdir("d", 0755), 0);
  write_file("d/.hidden", "");
  write_file("d/visible", "");
  Path dir("d");
  fs_dir iterator{};
  ASSERT_EQ(fs_dir_open(&dir.b, &iterator), 0);
  std::vector<std::string> names, paths;
  while (fs_dir_read(&iterator)) {
    names.push_back(fs_iter_name(&iterator));
    bucket path = fs_iter_path(&iterator);
    paths.push_back(bucket_cstring(&path));
    bucket_release(&path);
  }
  EXPECT_EQ(names, std::vector<std::string>{"visible"});
  EXPECT_EQ(paths, std::vector<std::string>{"d/visible"});
  EXPECT_EQ(iterator.handle, nullptr) << "the end closes the directory stream";

  Path missing("missing");
  EXPECT_EQ(fs_dir_open(&missing.b, &iterator), -1);
}

TEST_F(FsTest, RealpathAndRename) {
  ASSERT_EQ(mkdir("real", 0755), 0);
  ASSERT_EQ(symlink("real", "alias"), 0);
  Path alias("alias"), missing("missing");
  EXPECT_EQ(fs_realpath(&alias.b), 0);
  char resolved[4096];
  ASSERT_NE(realpath(root_.c_str(), resolved), nullptr);
  EXPECT_EQ(alias.str(), std::string(resolved) + "/real");
  EXPECT_EQ(fs_realpath(&missing.b), -1);
  EXPECT_EQ(missing.str(), "missing");

  Path from("real"), to("moved");
  EXPECT_EQ(fs_rename(&from.b, &to.b), 0);
  EXPECT_EQ(fs_type(&to.b), FS_TYPE_DIRECTORY);
  EXPECT_EQ(fs_set_mode(&to.b, 0700), 0);
  struct stat info;
  ASSERT_EQ(stat("moved", &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(FsTest, FilesAreOpenedCloseOnExec) {
  Path file("f");
  ostream* out = fs_open_write(&file.b);
  ASSERT_NE(out, nullptr);
  FILE* handle = static_cast<FILE*>(reinterpret_cast<ostream_stdio*>(out)->file);
  EXPECT_TRUE(fcntl(fileno(handle), F_GETFD) & FD_CLOEXEC);
  ostream_destroy(out);
}

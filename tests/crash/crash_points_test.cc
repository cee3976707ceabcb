// The disk as a crash at each step of deployment, rename and destruction
// leaves it, built by hand; the real daemon must start on it, list exactly
// the complete stacks and leave nothing half made behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/daemon.h"

using namespace e2e;

namespace {

std::string key_of(char c) { return std::string(64, c); }

// A store's serv directory with these files: name, contents, name, contents...
void make_store(Daemon& daemon, const std::string& directory, const Names& files_and_contents) {
  make_tree(daemon.path(directory + "/serv"));
  for (size_t i = 0; i + 1 < files_and_contents.size(); i += 2)
    write_file(daemon.path(directory + "/serv/" + files_and_contents[i]), files_and_contents[i + 1]);
}

}  // namespace

TEST(CrashPoints, StartUpRemovesWhatCrashesLeftAndKeepsTheRest) {
  Daemon daemon;
  const std::string k1 = key_of('1'), k2 = key_of('2'), k3 = key_of('3'), k4 = key_of('4'), k5 = key_of('5');
  // A complete stack, with its scratch directory.
  make_store(daemon, "data/" + k1, {"name", "kept", "image", "image one", "deployed", ""});
  // Deployment cut while the staging store was written: a name-tag cut short.
  make_store(daemon, "data/.staging-" + k2, {"name", "ha", "image", "ima"});
  // Deployment cut after the store took its key, before the program ran.
  make_store(daemon, "data/" + k3, {"name", "never started", "image", "image three"});
  // Rename cut after the new name-tag was written beside the old one.
  make_store(daemon, "data/" + k4, {"name", "old name", "image", "image four", "deployed", "", ".name.tmp", "new na"});
  // Destruction cut halfway through both removals: the name-tag is already
  // gone from the hidden store, the stack path is still under its key.
  make_store(daemon, "data/.deleting-" + k5, {"image", "half"});
  // Scratch directories: of stores above, mid-removal (6), of a store that never made it (7).
  // Hidden entries and names that are not the daemon's own stay untouched.
  for (const std::string& tree : {"stacks/" + k1, "stacks/" + k2, "stacks/" + k3, "stacks/" + k5 + "/deep/er",
                                  "stacks/.deleting-" + key_of('6') + "/x", "stacks/" + key_of('7'),
                                  std::string("data/.foreign/serv"), std::string("data/.staging-notakey"),
                                  "stacks/.deleting-" + key_of('8') + "x", std::string("stacks/not-a-key")})
    make_tree(daemon.path(tree));

  ASSERT_TRUE(daemon.start()) << daemon.err();
  EXPECT_EQ(list(daemon.port()), (Names{"kept", "old name"}));
  EXPECT_EQ(entries(daemon.path("data")), (Names{".foreign", ".staging-notakey", k1, k4}));
  EXPECT_EQ(entries(daemon.path("stacks")), (Names{".deleting-" + key_of('8') + "x", k1, k4, "not-a-key"}));
  EXPECT_EQ(entries(daemon.path("data/" + k4 + "/serv")), (Names{"deployed", "image", "name"}));
  EXPECT_EQ(read_file(daemon.path("data/" + k4 + "/serv/name")), "old name");

  std::string err = daemon.err();
  for (const std::string& path : {"./data/.staging-" + k2, "./data/.deleting-" + k5, "./stacks/.deleting-" + key_of('6'),
                                  "./stacks/" + k2, "./stacks/" + k5, "./stacks/" + key_of('7'),
                                  "./data/" + k4 + "/serv/.name.tmp"})
    EXPECT_TRUE(contains(err, "] Error: removing '" + path + "', left unfinished by an earlier run\n")) << path << err;
  for (const char* absent : {"Fatal", ".foreign", "not-a-key"}) EXPECT_FALSE(contains(err, absent)) << err;

  // The complete stacks run again (once bound).
  ASSERT_TRUE(daemon.wait_ready("kept"));
  EXPECT_EQ(greeting(daemon.port(), frame(encode_rename("kept", "kept too"))), "hello kept too");
}

// Killed while it stores a 64 MiB upload, at several moments: the daemon
// comes up again each time, with the stack whole or not there at all.
TEST(CrashPoints, KilledDuringA64MiBUploadComesBackWholeOrWithout) {
  Daemon daemon;
  const std::string image = patterned_image(64 << 20);
  signal(SIGPIPE, SIG_IGN);
  for (int delay_ms : {0, 40, 120, 250, 500, 900}) {
    ASSERT_TRUE(daemon.start()) << daemon.err();
    pid_t pid = daemon.pid(), killer = fork();
    if (killer == 0) {
      usleep(static_cast<useconds_t>(delay_ms) * 1000);
      kill(pid, SIGKILL);
      _exit(0);
    }
    std::string name = "big" + std::to_string(delay_ms);
    greeting(daemon.port(), upload_bytes(name, image), 3);
    waitpid(killer, nullptr, 0);
    daemon.signal(SIGKILL);
    ASSERT_GE(daemon.wait_exit(5000), 0);

    ASSERT_TRUE(daemon.start()) << "after a kill " << delay_ms << " ms into the upload: " << daemon.err();
    Names listed = list(daemon.port());
    if (std::find(listed.begin(), listed.end(), name) != listed.end())
      EXPECT_TRUE(read_file(daemon.path("data/" + daemon.key_of(name) + "/serv/image")) == image) << name;
    else
      EXPECT_EQ(daemon.key_of(name), "") << name << " is on disk but not listed";
    for (const std::string& entry : entries(daemon.path("data"))) EXPECT_NE(entry[0], '.') << entry;
    daemon.signal(SIGKILL);
    ASSERT_GE(daemon.wait_exit(5000), 0);
  }
}

// The disk as a crash at each step of deployment, rename and destruction
// leaves it, built by hand; the real daemon must start on it, list exactly
// the complete stacks and leave nothing half made behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/crash/crash_util.h"
#include "tests/e2e/daemon.h"

using crash::entries;
using crash::exists;
using crash::Names;
using e2e::Daemon;

namespace {

std::string key_of(char c) { return std::string(64, c); }

void make_store(Daemon& daemon, const std::string& directory, const std::string& name, const std::string& image,
                bool deployed) {
  crash::make_tree(daemon.path(directory + "/serv"));
  e2e::write_file(daemon.path(directory + "/serv/name"), name);
  e2e::write_file(daemon.path(directory + "/serv/image"), image);
  if (deployed) e2e::write_file(daemon.path(directory + "/serv/deployed"), "");
}

bool logged(const std::string& err, const std::string& line) { return err.find("] " + line) != std::string::npos; }

}  // namespace

TEST(CrashPoints, StartUpRemovesWhatCrashesLeftAndKeepsTheRest) {
  Daemon daemon;
  daemon.behave("default", "marker");
  // A complete stack, with its scratch directory.
  make_store(daemon, "data/" + key_of('1'), "kept", "image one", true);
  crash::make_tree(daemon.path("stacks/" + key_of('1')));
  // Deployment cut while the staging store was written: a name-tag cut short.
  make_store(daemon, "data/.staging-" + key_of('2'), "ha", "ima", false);
  crash::make_tree(daemon.path("stacks/" + key_of('2')));
  // Deployment cut after the store took its key, before the program ran.
  make_store(daemon, "data/" + key_of('3'), "never started", "image three", false);
  crash::make_tree(daemon.path("stacks/" + key_of('3')));
  // Rename cut after the new name-tag was written beside the old one.
  make_store(daemon, "data/" + key_of('4'), "old name", "image four", true);
  e2e::write_file(daemon.path("data/" + key_of('4') + "/serv/.name.tmp"), "new na");
  // Destruction cut halfway through both removals: the name-tag is already
  // gone from the hidden store, the stack path is still under its key.
  crash::make_tree(daemon.path("data/.deleting-" + key_of('5') + "/serv"));
  e2e::write_file(daemon.path("data/.deleting-" + key_of('5') + "/serv/image"), "half");
  crash::make_tree(daemon.path("stacks/" + key_of('5') + "/deep/er"));
  // Destruction cut while the stack path was being removed.
  crash::make_tree(daemon.path("stacks/.deleting-" + key_of('6') + "/x"));
  // A scratch directory whose store never made it.
  crash::make_tree(daemon.path("stacks/" + key_of('7')));
  // Hidden entries and names that are not the daemon's own stay untouched.
  crash::make_tree(daemon.path("data/.foreign/serv"));
  crash::make_tree(daemon.path("data/.staging-notakey"));
  crash::make_tree(daemon.path("stacks/.deleting-" + key_of('8') + "x"));
  crash::make_tree(daemon.path("stacks/not-a-key"));

  ASSERT_TRUE(daemon.start()) << daemon.err();
  EXPECT_EQ(crash::list(daemon), (Names{"kept", "old name"}));

  EXPECT_EQ(entries(daemon.path("data")), (Names{".foreign", ".staging-notakey", key_of('1'), key_of('4')}));
  EXPECT_EQ(entries(daemon.path("stacks")),
            (Names{".deleting-" + key_of('8') + "x", key_of('1'), key_of('4'), "not-a-key"}));
  EXPECT_EQ(entries(daemon.path("data/" + key_of('4') + "/serv")), (Names{"deployed", "image", "name"}));
  EXPECT_EQ(e2e::read_file(daemon.path("data/" + key_of('4') + "/serv/name")), "old name");

  std::string err = daemon.err();
  for (const std::string& path :
       {"./data/.staging-" + key_of('2'), "./data/.deleting-" + key_of('5'), "./stacks/.deleting-" + key_of('6'),
        "./stacks/" + key_of('2'), "./stacks/" + key_of('5'), "./stacks/" + key_of('7'),
        "./data/" + key_of('4') + "/serv/.name.tmp"})
    EXPECT_TRUE(logged(err, "Error: removing '" + path + "', left unfinished by an earlier run\n")) << path << err;
  EXPECT_EQ(err.find("Fatal"), std::string::npos) << err;
  EXPECT_EQ(err.find(".foreign"), std::string::npos) << err;
  EXPECT_EQ(err.find("not-a-key"), std::string::npos) << err;

  // The complete stacks run again (once bound); the one never started stays gone.
  ASSERT_TRUE(crash::wait_ready(daemon, "kept"));
  EXPECT_EQ(crash::rename(daemon, "kept", "kept too"), "hello kept too");
  EXPECT_FALSE(exists(daemon.path("data/" + key_of('3'))));
}

TEST(CrashPoints, NormalWorkLeavesNoHiddenEntryAndTheSameLayout) {
  Daemon daemon;
  daemon.behave("default", "marker");
  ASSERT_TRUE(daemon.start()) << daemon.err();
  std::string image(100000, 'i');
  ASSERT_EQ(crash::upload(daemon, "one", image), "deployed one");
  ASSERT_EQ(crash::upload(daemon, "two", "2"), "deployed two");
  ASSERT_TRUE(crash::wait_ready(daemon, "one"));
  ASSERT_EQ(crash::rename(daemon, "one", "uno"), "hello uno");
  ASSERT_EQ(crash::remove(daemon, "two"), "success");

  std::string key = daemon.key_of("uno");
  ASSERT_FALSE(key.empty());
  EXPECT_EQ(entries(daemon.path("data")), (Names{key}));
  EXPECT_EQ(entries(daemon.path("stacks")), (Names{key}));
  EXPECT_EQ(entries(daemon.path("data/" + key)), (Names{"serv"}));
  EXPECT_EQ(entries(daemon.path("data/" + key + "/serv")), (Names{"deployed", "image", "name"}));
  EXPECT_EQ(e2e::read_file(daemon.path("data/" + key + "/serv/image")), image);
  EXPECT_EQ(e2e::read_file(daemon.path("data/" + key + "/serv/name")), "uno");
}

// Killed while it stores a 64 MiB upload, at several moments: the daemon
// comes up again each time, with the stack whole or not there at all.
TEST(CrashPoints, KilledDuringA64MiBUploadComesBackWholeOrWithout) {
  Daemon daemon;
  daemon.behave("default", "marker");
  std::string image(64 << 20, '\0');
  for (size_t i = 0; i < image.size(); i += 4096) image[i] = static_cast<char>(i / 4096);
  signal(SIGPIPE, SIG_IGN);
  int whole = 0, absent = 0;
  for (int delay_ms : {0, 40, 120, 250, 500, 900}) {
    ASSERT_TRUE(daemon.start()) << daemon.err();
    pid_t pid = daemon.pid();
    std::string name = "big" + std::to_string(delay_ms);
    pid_t killer = fork();
    if (killer == 0) {
      usleep(static_cast<useconds_t>(delay_ms) * 1000);
      kill(pid, SIGKILL);
      _exit(0);
    }
    crash::upload(daemon, name, image, 3);
    waitpid(killer, nullptr, 0);
    daemon.signal(SIGKILL);
    ASSERT_GE(daemon.wait_exit(5000), 0);

    ASSERT_TRUE(daemon.start()) << "after a kill " << delay_ms << " ms into the upload: " << daemon.err();
    Names listed = crash::list(daemon);
    bool there = std::find(listed.begin(), listed.end(), name) != listed.end();
    if (there) {
      ++whole;
      EXPECT_TRUE(e2e::read_file(daemon.path("data/" + daemon.key_of(name) + "/serv/image")) == image) << name;
    } else {
      ++absent;
      EXPECT_EQ(daemon.key_of(name), "") << name << " is on disk but not listed";
    }
    for (const std::string& entry : entries(daemon.path("data"))) EXPECT_NE(entry[0], '.') << entry;
    daemon.signal(SIGKILL);
    ASSERT_GE(daemon.wait_exit(5000), 0);
  }
  EXPECT_EQ(whole + absent, 6);
}

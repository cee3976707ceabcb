// Uploads, renames and deletes while the daemon is killed with SIGKILL at
// random moments and started again: after every restart it runs, lists
// exactly the stores on disk, and every image is what was uploaded under its
// name. Seeded (APPSRV_CRASH_SEED overrides) and bounded in time.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "tests/support/daemon.h"

using namespace e2e;

namespace {

constexpr int kKills = 200;
constexpr int64_t kBudgetMilliseconds = 80000;
constexpr int kMinimumKills = 60;  // what a slow (sanitizer) build must reach at least
constexpr size_t kMostStacks = 6;

std::string random_image(std::mt19937_64& random) {
  uint64_t roll = random() % 100;
  std::string image(roll < 70 ? random() % 65536 : roll < 95 ? 262144 + random() % 786432 : (8u << 20), '\0');
  for (size_t i = 0, word; i + 8 <= image.size(); i += 8) word = random(), memcpy(&image[i], &word, 8);
  return image;
}

}  // namespace

TEST(CrashLoop, RandomKillsNeverLeaveADiskTheDaemonCannotStartOn) {
  signal(SIGPIPE, SIG_IGN);
  const char* seed_text = getenv("APPSRV_CRASH_SEED");
  const uint64_t seed = seed_text != nullptr ? strtoull(seed_text, nullptr, 10) : 20261123;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed), timing(seed ^ 0x5eed);
  std::map<std::string, std::string> images;  // every name ever used; names are never reused
  std::set<std::string> live;
  int kills = 0, restarts = 0, stacks_checked = 0, next_name = 0;
  Daemon daemon;
  auto pick = [&] { return *std::next(live.begin(), static_cast<long>(random() % live.size())); };
  // One operation; false once the daemon no longer answers.
  auto operate = [&] {
    uint64_t roll = random() % 4;
    if (live.size() >= kMostStacks || (roll == 3 && !live.empty())) {
      std::string name = pick(), result = ask(daemon.port(), encode_delete(name), 3);
      if (result == "success") live.erase(name);
      return !result.empty();
    }
    std::string name = "n" + std::to_string(next_name++);
    if (roll == 2 && !live.empty()) {
      std::string old_name = pick();
      images[name] = images[old_name];
      if (greeting(daemon.port(), frame(encode_rename(old_name, name)), 3).empty()) return false;
      live.erase(old_name);
    } else {
      images[name] = random_image(random);
      if (greeting(daemon.port(), upload_bytes(name, images[name]), 3).empty()) return false;
    }
    live.insert(name);
    return true;
  };

  for (int64_t deadline = now_ms() + kBudgetMilliseconds;; ++kills) {
    ASSERT_TRUE(daemon.start()) << "restart " << restarts << ":\n" << daemon.err();
    ++restarts;
    // Its start-up work is done once it answers: nothing hidden is left, and
    // the list, the stores on disk and the images agree.
    Names listed = list(daemon.port()), on_disk;
    for (const char* root : {"data", "stacks"})
      for (const std::string& entry : entries(daemon.path(root))) ASSERT_NE(entry[0], '.') << root << entry;
    for (const std::string& key : entries(daemon.path("data"))) {
      std::string name = read_file(daemon.path("data/" + key + "/serv/name"));
      on_disk.push_back(name);
      auto uploaded = images.find(name);
      ASSERT_NE(uploaded, images.end()) << "a store named '" << name << "' was never uploaded";
      ASSERT_TRUE(read_file(daemon.path("data/" + key + "/serv/image")) == uploaded->second)
          << "image of '" << name << "' differs from the upload";
    }
    std::sort(on_disk.begin(), on_disk.end());
    ASSERT_EQ(listed, on_disk) << "restart " << restarts << ":\n" << daemon.err();
    stacks_checked += static_cast<int>(listed.size());  // each with its image
    live = std::set<std::string>(listed.begin(), listed.end());
    if (kills == kKills || now_ms() >= deadline) break;

    pid_t pid = daemon.pid();
    auto delay = std::chrono::microseconds(timing() % 120000);
    std::thread killer([pid, delay] {
      std::this_thread::sleep_for(delay);
      kill(pid, SIGKILL);
    });
    // Works until the daemon is gone (at most a few operations more).
    for (int step = 0; step < 50 && operate(); ++step) {
    }
    killer.join();
    ASSERT_GE(daemon.wait_exit(5000), 0);
  }
  printf("crash loop: seed %llu, %d kills, %d restarts, %d stacks and their images checked\n",
         static_cast<unsigned long long>(seed), kills, restarts, stacks_checked);
  EXPECT_GE(kills, kMinimumKills);
}

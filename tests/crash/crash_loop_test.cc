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

class CrashLoop {
 public:
  explicit CrashLoop(uint64_t seed) : random_(seed) { daemon_.behave("default", "marker"); }

  // After a restart (its start-up work done once it answers): nothing hidden
  // is left, and the list, the stores on disk and the images agree.
  void check() {
    Names listed = list(daemon_.port()), on_disk;
    for (const char* root : {"data", "stacks"})
      for (const std::string& entry : entries(daemon_.path(root))) ASSERT_NE(entry[0], '.') << root << entry;
    for (const std::string& key : entries(daemon_.path("data"))) {
      std::string name = read_file(daemon_.path("data/" + key + "/serv/name"));
      on_disk.push_back(name);
      auto uploaded = images_.find(name);
      ASSERT_NE(uploaded, images_.end()) << "a store named '" << name << "' was never uploaded";
      ASSERT_TRUE(read_file(daemon_.path("data/" + key + "/serv/image")) == uploaded->second)
          << "image of '" << name << "' differs from the upload";
    }
    std::sort(on_disk.begin(), on_disk.end());
    ASSERT_EQ(listed, on_disk) << "restart " << restarts;
    stacks_checked += static_cast<int>(listed.size());  // each with its image
    live_ = std::set<std::string>(listed.begin(), listed.end());
  }

  // Works until the daemon is gone (at most a few operations more).
  void work() {
    for (int step = 0; step < 50 && operate(); ++step) {
    }
  }

  Daemon daemon_;
  int kills = 0, restarts = 0, stacks_checked = 0;

 private:
  std::string pick() { return *std::next(live_.begin(), static_cast<long>(random_() % live_.size())); }

  // One operation; false once the daemon no longer answers.
  bool operate() {
    uint64_t roll = random_() % 4;
    if (live_.size() >= kMostStacks || (roll == 3 && !live_.empty())) {
      std::string name = pick(), result = ask(daemon_.port(), encode_delete(name), 3);
      if (result == "success") live_.erase(name);
      return !result.empty();
    }
    std::string name = "n" + std::to_string(next_name_++);
    if (roll == 2 && !live_.empty()) {
      std::string old_name = pick();
      images_[name] = images_[old_name];
      if (greeting(daemon_.port(), frame(encode_rename(old_name, name)), 3).empty()) return false;
      live_.erase(old_name);
    } else {
      images_[name] = random_image(random_);
      if (greeting(daemon_.port(), upload_bytes(name, images_[name]), 3).empty()) return false;
    }
    live_.insert(name);
    return true;
  }

  std::mt19937_64 random_;
  std::map<std::string, std::string> images_;  // every name ever used; names are never reused
  std::set<std::string> live_;
  int next_name_ = 0;
};

}  // namespace

TEST(CrashLoop, RandomKillsNeverLeaveADiskTheDaemonCannotStartOn) {
  signal(SIGPIPE, SIG_IGN);
  const char* seed_text = getenv("APPSRV_CRASH_SEED");
  uint64_t seed = seed_text != nullptr ? strtoull(seed_text, nullptr, 10) : 20261123;
  std::mt19937_64 timing(seed ^ 0x5eed);
  CrashLoop loop(seed);
  for (int64_t deadline = now_ms() + kBudgetMilliseconds;; ++loop.kills) {
    ASSERT_TRUE(loop.daemon_.start()) << "restart " << loop.restarts << ", seed " << seed << ":\n"
                                      << loop.daemon_.err();
    ++loop.restarts;
    loop.check();
    ASSERT_FALSE(testing::Test::HasFatalFailure()) << "seed " << seed << ":\n" << loop.daemon_.err();
    if (loop.kills == kKills || now_ms() >= deadline) break;
    pid_t pid = loop.daemon_.pid();
    auto delay = std::chrono::microseconds(timing() % 120000);
    std::thread killer([pid, delay] {
      std::this_thread::sleep_for(delay);
      kill(pid, SIGKILL);
    });
    loop.work();
    killer.join();
    ASSERT_GE(loop.daemon_.wait_exit(5000), 0);
  }
  printf("crash loop: seed %llu, %d kills, %d restarts, %d stacks and their images checked\n",
         static_cast<unsigned long long>(seed), loop.kills, loop.restarts, loop.stacks_checked);
  EXPECT_GE(loop.kills, kMinimumKills);
}

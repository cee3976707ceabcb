// Uploads, renames and deletes while the daemon is killed with SIGKILL at
// random moments and started again: after every restart it runs, lists
// exactly the stores on disk, and every image is what was uploaded under its
// name. Seeded (APPSRV_CRASH_SEED overrides) and bounded in time.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>

#include "tests/crash/crash_util.h"
#include "tests/e2e/daemon.h"

using crash::Names;
using e2e::Daemon;

namespace {

constexpr int kKills = 200;
constexpr int64_t kBudgetMilliseconds = 80000;
constexpr int kMinimumKills = 60;  // what a slow (sanitizer) build must reach at least
constexpr size_t kMostStacks = 6;

struct Totals {
  int kills = 0;
  int restarts = 0;
  int stacks_checked = 0;
  int images_checked = 0;
};

std::string random_image(std::mt19937_64& random) {
  uint64_t roll = random() % 100;
  size_t size = roll < 70 ? random() % 65536 : roll < 95 ? 262144 + random() % 786432 : (8u << 20);
  std::string image(size, '\0');
  for (size_t i = 0; i + 8 <= size; i += 8) {
    uint64_t word = random();
    memcpy(&image[i], &word, 8);
  }
  return image;
}

class CrashLoop {
 public:
  explicit CrashLoop(uint64_t seed) : random_(seed) {}

  // After a restart: the list, the stores on disk and the images agree.
  void check(Totals& totals) {
    Names listed = crash::list(daemon_);
    std::map<std::string, std::string> stores = crash::stores_on_disk(daemon_);
    Names on_disk;
    for (const auto& [key, name] : stores) on_disk.push_back(name);
    std::sort(on_disk.begin(), on_disk.end());
    ASSERT_EQ(listed, on_disk) << "restart " << totals.restarts;
    for (const auto& [key, name] : stores) {
      auto uploaded = images_.find(name);
      ASSERT_NE(uploaded, images_.end()) << "a store named '" << name << "' was never uploaded";
      ASSERT_TRUE(e2e::read_file(daemon_.path("data/" + key + "/serv/image")) == uploaded->second)
          << "image of '" << name << "' differs from the upload";
      ++totals.images_checked;
    }
    for (const char* root : {"data", "stacks"})
      for (const std::string& entry : crash::entries(daemon_.path(root))) ASSERT_NE(entry[0], '.') << root << entry;
    totals.stacks_checked += static_cast<int>(listed.size());
    live_ = std::set<std::string>(listed.begin(), listed.end());
  }

  // Works until the daemon is gone (at most a few operations more).
  void work() {
    for (int step = 0; step < 50; ++step) {
      if (!operate()) return;
    }
  }

  Daemon& daemon() { return daemon_; }

 private:
  std::string pick() {
    auto at = live_.begin();
    std::advance(at, static_cast<long>(random_() % live_.size()));
    return *at;
  }

  // One operation; false once the daemon no longer answers.
  bool operate() {
    uint64_t roll = random_() % 4;
    if (live_.size() >= kMostStacks || (roll == 3 && !live_.empty())) {
      std::string name = pick();
      std::string result = crash::remove(daemon_, name, 3);
      if (result == "success") live_.erase(name);
      return !result.empty();
    }
    if (roll == 2 && !live_.empty()) {
      std::string name = pick();
      std::string renamed = "n" + std::to_string(next_name_++);
      images_[renamed] = images_[name];
      std::string greeting = crash::rename(daemon_, name, renamed, 3);
      if (greeting.empty()) return false;
      live_.erase(name);
      live_.insert(renamed);
      return true;
    }
    std::string name = "n" + std::to_string(next_name_++);
    images_[name] = random_image(random_);
    std::string greeting = crash::upload(daemon_, name, images_[name], 3);
    if (greeting.empty()) return false;
    live_.insert(name);
    return true;
  }

  Daemon daemon_;
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
  loop.daemon().behave("default", "marker");
  Totals totals;
  int64_t deadline = crash::now_ms() + kBudgetMilliseconds;
  while (totals.kills < kKills && crash::now_ms() < deadline) {
    ASSERT_TRUE(loop.daemon().start()) << "restart " << totals.restarts << ", seed " << seed << ":\n"
                                       << loop.daemon().err();
    ++totals.restarts;
    loop.check(totals);
    if (testing::Test::HasFatalFailure()) {
      ADD_FAILURE() << "seed " << seed << ", restart " << totals.restarts << ":\n" << loop.daemon().err();
      return;
    }
    pid_t pid = loop.daemon().pid();
    auto delay = std::chrono::microseconds(timing() % 120000);
    std::thread killer([pid, delay] {
      std::this_thread::sleep_for(delay);
      kill(pid, SIGKILL);
    });
    loop.work();
    killer.join();
    ASSERT_GE(loop.daemon().wait_exit(5000), 0);
    ++totals.kills;
  }
  ASSERT_TRUE(loop.daemon().start()) << loop.daemon().err();
  ++totals.restarts;
  loop.check(totals);
  printf("crash loop: seed %llu, %d kills, %d restarts, %d stacks and %d images checked\n",
         static_cast<unsigned long long>(seed), totals.kills, totals.restarts, totals.stacks_checked,
         totals.images_checked);
  EXPECT_GE(totals.kills, kMinimumKills);
}

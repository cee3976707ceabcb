// The ordered text set under every collection, checked against std::set
// through sorted inserts, then random inserts and removes: an in-order walk
// equal to the model shows the order and the parent links, and the height
// stays logarithmic.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "protocol/message_set.h"

namespace {

int height(const message_entry* entry) {
  return entry == nullptr ? 0 : 1 + std::max(height(entry->left), height(entry->right));
}

void check_against(const message_collection& set, const std::set<std::string>& model) {
  EXPECT_LE(height(set.tree), 2 * std::log2(model.size() + 1)) << "a balanced tree";
  std::vector<std::string> walked;
  for (const message_entry* entry = message_set_first(set.tree); entry != nullptr; entry = message_set_next(entry))
    walked.emplace_back(entry->text);
  EXPECT_EQ(walked, std::vector<std::string>(model.begin(), model.end()));
  EXPECT_EQ(set.count, model.size());
}

TEST(MessageSet, RandomInsertsAndRemovesMatchStdSet) {
  std::mt19937 random(20261123);
  std::vector<std::string> texts;
  for (int i = 0; i < 300; i++) texts.push_back(std::to_string(random() % 1000));
  std::sort(texts.begin(), texts.end());  // the first inserts come in order, as a peer's sorted list does
  std::deque<message_entry> storage;  // entries never move once made
  message_collection set{};
  std::set<std::string> model;
  for (int step = 0; step < 4000; step++) {
    bool in_order = step < 300;
    const std::string& text = in_order ? texts[step] : texts[random() % texts.size()];
    if (in_order || random() % 3 != 0) {
      message_entry* made =
          &storage.emplace_back(message_entry{const_cast<char*>(text.c_str()), nullptr, nullptr, nullptr, nullptr, 0});
      message_entry* kept = message_set_insert(&set, made, true);
      EXPECT_EQ(kept == made, model.insert(text).second);
    } else {
      message_entry* found = message_set_find(&set, text.c_str());
      EXPECT_EQ(found != nullptr, model.erase(text) == 1);
      if (found != nullptr) message_set_remove(&set, found);
    }
    if (step % 50 == 0) check_against(set, model);
  }
  check_against(set, model);
  for (; !model.empty(); model.erase(model.begin()))
    message_set_remove(&set, message_set_find(&set, model.begin()->c_str()));
  check_against(set, model);
  EXPECT_EQ(set.tree, nullptr);
}

}  // namespace

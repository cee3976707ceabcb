// The ordered text set under every collection, checked against std::set
// through random inserts and removes, with the red-black rules verified as
// it goes; an in-order walk equal to the model shows the order.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "protocol/message_set.h"

namespace {

bool red(const message_entry* entry) { return entry != nullptr && entry->red; }

// Checks the parent links and the red-black rules; returns the black height.
int check_subtree(const message_entry* entry, const message_entry* parent) {
  if (entry == nullptr) return 1;
  EXPECT_EQ(entry->parent, parent);
  EXPECT_FALSE(red(entry) && (red(entry->left) || red(entry->right))) << "red entry with a red child: " << entry->text;
  int left = check_subtree(entry->left, entry);
  EXPECT_EQ(left, check_subtree(entry->right, entry)) << "black heights differ under " << entry->text;
  return left + (entry->red ? 0 : 1);
}

// The rules, then the order and the count against the model.
void check_against(const message_collection& set, const std::set<std::string>& model) {
  EXPECT_FALSE(red(set.tree));
  check_subtree(set.tree, nullptr);
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
  std::deque<message_entry> storage;  // entries never move once made
  message_collection set{};
  std::set<std::string> model;
  for (int step = 0; step < 4000; step++) {
    const std::string& text = texts[random() % texts.size()];
    if (random() % 3 != 0) {
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

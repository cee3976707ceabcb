#include "protocol/message_set.h"

#include <cstring>

namespace {

bool is_red(const message_entry* entry) { return entry != nullptr && entry->red; }

// Puts `replacement` where `entry` hangs from its parent (or at the top).
void replace_child(message_collection* set, message_entry* entry, message_entry* replacement) {
  message_entry* parent = entry->parent;
  if (parent == nullptr) set->tree = replacement;
  else if (parent->left == entry) parent->left = replacement;
  else parent->right = replacement;
  if (replacement != nullptr) replacement->parent = parent;
}

void rotate_left(message_collection* set, message_entry* entry) {
  message_entry* pivot = entry->right;
  entry->right = pivot->left;
  if (pivot->left != nullptr) pivot->left->parent = entry;
  replace_child(set, entry, pivot);
  pivot->left = entry;
  entry->parent = pivot;
}

void rotate_right(message_collection* set, message_entry* entry) {
  message_entry* pivot = entry->left;
  entry->left = pivot->right;
  if (pivot->right != nullptr) pivot->right->parent = entry;
  replace_child(set, entry, pivot);
  pivot->right = entry;
  entry->parent = pivot;
}

// Restores "no red entry has a red child" after `entry` was linked in red.
void repair_after_insert(message_collection* set, message_entry* entry) {
  while (is_red(entry->parent)) {
    message_entry* parent = entry->parent;
    message_entry* grandparent = parent->parent;  // exists: the top is black
    bool parent_is_left = grandparent->left == parent;
    message_entry* uncle = parent_is_left ? grandparent->right : grandparent->left;
    if (is_red(uncle)) {
      parent->red = 0;
      uncle->red = 0;
      grandparent->red = 1;
      entry = grandparent;
      continue;
    }
    if (parent_is_left) {
      if (entry == parent->right) {
        rotate_left(set, parent);
        parent = entry;
      }
      rotate_right(set, grandparent);
    } else {
      if (entry == parent->left) {
        rotate_right(set, parent);
        parent = entry;
      }
      rotate_left(set, grandparent);
    }
    parent->red = 0;
    grandparent->red = 1;
    break;
  }
  set->tree->red = 0;
}

// Restores equal black heights after a black entry left the tree: `entry`
// (possibly null) under `parent` carries one black too few.
void repair_after_remove(message_collection* set, message_entry* entry, message_entry* parent) {
  while (entry != set->tree && !is_red(entry)) {
    if (entry == parent->left) {
      message_entry* sibling = parent->right;
      if (is_red(sibling)) {
        sibling->red = 0;
        parent->red = 1;
        rotate_left(set, parent);
        sibling = parent->right;
      }
      if (!is_red(sibling->left) && !is_red(sibling->right)) {
        sibling->red = 1;
        entry = parent;
        parent = entry->parent;
        continue;
      }
      if (!is_red(sibling->right)) {
        sibling->left->red = 0;
        sibling->red = 1;
        rotate_right(set, sibling);
        sibling = parent->right;
      }
      sibling->red = parent->red;
      parent->red = 0;
      sibling->right->red = 0;
      rotate_left(set, parent);
    } else {
      message_entry* sibling = parent->left;
      if (is_red(sibling)) {
        sibling->red = 0;
        parent->red = 1;
        rotate_right(set, parent);
        sibling = parent->left;
      }
      if (!is_red(sibling->left) && !is_red(sibling->right)) {
        sibling->red = 1;
        entry = parent;
        parent = entry->parent;
        continue;
      }
      if (!is_red(sibling->left)) {
        sibling->right->red = 0;
        sibling->red = 1;
        rotate_left(set, sibling);
        sibling = parent->left;
      }
      sibling->red = parent->red;
      parent->red = 0;
      sibling->left->red = 0;
      rotate_right(set, parent);
    }
    entry = set->tree;
  }
  if (entry != nullptr) entry->red = 0;
}

int compare(const char* a, const char* b) { return strcmp(a, b); }

}  // namespace

message_entry* message_set_find(const message_collection* set, const char* text) {
  message_entry* entry = set->tree;
  while (entry != nullptr) {
    int order = compare(text, entry->text);
    if (order == 0) return entry;
    entry = order < 0 ? entry->left : entry->right;
  }
  return nullptr;
}

message_entry* message_set_insert(message_collection* set, message_entry* entry, bool unique) {
  message_entry* parent = nullptr;
  message_entry** link = &set->tree;
  while (*link != nullptr) {
    parent = *link;
    int order = compare(entry->text, parent->text);
    if (order == 0 && unique) return parent;
    link = order < 0 ? &parent->left : &parent->right;
  }
  entry->parent = parent;
  entry->left = nullptr;
  entry->right = nullptr;
  entry->red = 1;
  *link = entry;
  repair_after_insert(set, entry);
  set->count++;
  return entry;
}

void message_set_remove(message_collection* set, message_entry* entry) {
  message_entry* moved;  // takes the place of the entry that leaves its spot
  message_entry* moved_parent;
  bool removed_black;
  if (entry->left == nullptr || entry->right == nullptr) {
    moved = entry->left != nullptr ? entry->left : entry->right;
    moved_parent = entry->parent;
    removed_black = !entry->red;
    replace_child(set, entry, moved);
  } else {
    // Two children: the successor (leftmost of the right subtree) leaves its
    // spot and takes the entry's place and colour.
    message_entry* successor = message_set_first(entry->right);
    removed_black = !successor->red;
    moved = successor->right;
    if (successor->parent == entry) {
      moved_parent = successor;
    } else {
      moved_parent = successor->parent;
      replace_child(set, successor, moved);
      successor->right = entry->right;
      successor->right->parent = successor;
    }
    replace_child(set, entry, successor);
    successor->left = entry->left;
    successor->left->parent = successor;
    successor->red = entry->red;
  }
  if (removed_black) repair_after_remove(set, moved, moved_parent);
  entry->parent = entry->left = entry->right = nullptr;
  set->count--;
}

message_entry* message_set_first(message_entry* tree) {
  if (tree == nullptr) return nullptr;
  while (tree->left != nullptr) tree = tree->left;
  return tree;
}

message_entry* message_set_next(const message_entry* entry) {
  if (entry->right != nullptr) return message_set_first(entry->right);
  const message_entry* child = entry;
  message_entry* parent = entry->parent;
  while (parent != nullptr && parent->right == child) {
    child = parent;
    parent = parent->parent;
  }
  return parent;
}

// The ordered set of unique texts behind every collection field: a red-black
// tree of entries that live in the message arena. Texts are ordered as strcmp
// orders them (bytes as unsigned values, a prefix before its extensions).
// Insert, find and remove take logarithmic time; walking in order needs only
// the parent links, so iteration allocates nothing.
#pragma once

#include <cstdint>

struct message_node;

struct message_entry {
  char* text;  // zero-terminated copy in the message arena
  message_node* holder;  // the record that holds the collection
  message_entry* parent;  // null for the tree's root
  message_entry* left;
  message_entry* right;
  uint8_t red;  // 1 red, 0 black
};

// The collection field itself, inside the holding record.
struct message_collection {
  message_entry* tree;  // root of the tree, null when empty
  uint64_t count;  // number of entries
};

// Iteration state; callers may reserve it themselves (its size is the
// generated `it_bsize`).
struct message_cursor {
  message_entry* current;
};

// The entry whose text equals `text`, or null.
message_entry* message_set_find(const message_collection* set, const char* text);

// Links `entry` (its text filled in) into the tree and raises the count.
// With `unique` set, an entry with an equal text already present makes it
// return that entry and leave the set as it was; otherwise it returns `entry`.
// Without `unique`, an equal text is placed after the ones already present.
message_entry* message_set_insert(message_collection* set, message_entry* entry, bool unique);

// Unlinks `entry`, which must be in `set`, and lowers the count. The entry's
// memory stays in the arena.
void message_set_remove(message_collection* set, message_entry* entry);

// The smallest entry of a tree, or null when it is empty.
message_entry* message_set_first(message_entry* tree);
// The entry after `entry` in ascending order, or null after the last.
message_entry* message_set_next(const message_entry* entry);

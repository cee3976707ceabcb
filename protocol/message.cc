#include "protocol/message.h"

#include <cstring>

#include "base/bigendian.h"

const char message_fingerprint[65] = "d95b246cca0c3b04d105771d58246fa0e706a6d44ac97d6cb4bab99390a02582";

void message_recover(message_root* root, const char* reason) {
  if (reason != nullptr) root->failure_reason = reason;
  throw message_recovery{root};
}

// ---- message arena -----------------------------------------------------

dympage* message_arena_create() { return dympage_create(); }

void message_arena_destroy(dympage* arena) { dympage_destroy(arena); }

void* message_arena_block(dympage* arena, uint64_t size, uint64_t alignment) {
  return dympage_alloc(arena, size, alignment);
}

char* message_arena_text(dympage* arena, const char* text, uint64_t length) {
  auto* copy = static_cast<char*>(dympage_alloc(arena, length + 1, 1));
  // The copy goes by the terminator; stopping at `length` as well keeps a
  // caller whose length is too short from writing past the block.
  memcpy(copy, text, strnlen(text, length));
  return copy;
}

// ---- failures and the write-once rules ---------------------------------

message_root* message_root_of(message_node* node) {
  while (node->context != node) node = node->context;
  return static_cast<message_root*>(node);
}

void message_refuse(message_node* holder, const char* text) {
  message_root* root = message_root_of(holder);
  // The hook runs first: one that goes back to the recovery point leaves the
  // reason as it was.
  if (root->failure_hook != nullptr) root->failure_hook(root, text);
  root->failure_reason = text;
}

int message_variant_claim(message_node* holder, message_variant* variant, const char* refusal) {
  if (variant->set) {
    message_refuse(holder, refusal);
    return -1;
  }
  variant->set = 1;
  return 0;
}

void* message_variant_reuse(message_node* holder, message_variant* variant, uint32_t tag, const char* refusal,
                            bool* refused) {
  *refused = false;
  if (!variant->set) {
    variant->set = 1;
    return nullptr;
  }
  if (variant->tag == tag) return variant->payload;
  *refused = true;
  message_refuse(holder, refusal);
  return nullptr;
}

int message_text_set(dympage* arena, message_node* holder, message_text* field, const char* text,
                     const char* refusal) {
  if (field->set) {
    message_refuse(holder, refusal);
    return -1;
  }
  uint64_t length = strlen(text);
  field->set = 1;
  field->length = length;
  field->text = message_arena_text(arena, text, length);
  return 0;
}

char* message_text_alloc(dympage* arena, message_node* holder, message_text* field, uint64_t length,
                         const char* refusal) {
  if (field->set) {
    message_refuse(holder, refusal);
    return nullptr;
  }
  field->set = 1;
  field->length = length;
  field->text = static_cast<char*>(dympage_alloc(arena, length + 1, 8));
  return field->text;
}

int message_natural_set(message_node* holder, message_natural* field, int64_t value, const char* refusal) {
  if (field->set) {
    message_refuse(holder, refusal);
    return -1;
  }
  if (value < 1) {
    message_refuse(holder, "illegal value for natural number");
    return -1;
  }
  field->set = 1;
  field->value = value;
  return 0;
}

namespace {

message_entry* make_entry(dympage* arena, message_node* holder, char* text) {
  auto* entry = static_cast<message_entry*>(dympage_alloc(arena, sizeof(message_entry), alignof(message_entry)));
  entry->text = text;
  entry->holder = holder;
  return entry;
}

}  // namespace

message_entry* message_collection_create(dympage* arena, message_node* holder, message_collection* set,
                                         const char* text, const char* refusal) {
  // Looking first keeps a refused text from taking arena memory.
  if (message_set_find(set, text) != nullptr) {
    message_refuse(holder, refusal);
    return nullptr;
  }
  char* copy = message_arena_text(arena, text, strlen(text));
  return message_set_insert(set, make_entry(arena, holder, copy), true);
}

message_entry* message_collection_allocate(dympage* arena, message_node* holder, message_collection* set,
                                           const char* text, uint64_t length) {
  char* copy = message_arena_text(arena, text, length);
  return message_set_insert(set, make_entry(arena, holder, copy), false);
}

void message_collection_unlink(message_collection* set, const char* text) {
  message_entry* entry = message_set_find(set, text);
  if (entry != nullptr) message_set_remove(set, entry);
}

// ---- reading the binary encoding ---------------------------------------

namespace {

// Reader failures are recorded directly: the hook is for setters only.
message_step fail(message_reader* reader, const char* text) {
  reader->root->failure_reason = text;
  return MESSAGE_FAILED;
}

bool read_exactly(message_reader* reader, void* destination, uint64_t count) {
  return istream_read_len(reader->input, destination, count) == count;
}

}  // namespace

message_step message_read_fingerprint(message_reader* reader) {
  char bytes[MESSAGE_FINGERPRINT_SIZE];
  if (!read_exactly(reader, bytes, sizeof bytes)) return fail(reader, "insufficient bytes to read fingerprint");
  if (memcmp(bytes, message_fingerprint, sizeof bytes) != 0) return fail(reader, "fingerprint mismatch in binary data");
  return MESSAGE_PROCEED;
}

message_step message_read_uint32(message_reader* reader, uint32_t* value) {
  uint8_t bytes[4];
  if (!read_exactly(reader, bytes, sizeof bytes)) return fail(reader, "insufficient bytes to read uint32");
  *value = bigendian_load32(bytes);
  return MESSAGE_PROCEED;
}

message_step message_read_int64(message_reader* reader, int64_t* value) {
  uint8_t bytes[8];
  if (!read_exactly(reader, bytes, sizeof bytes)) return fail(reader, "insufficient bytes to read int64");
  *value = static_cast<int64_t>(bigendian_load64(bytes));
  return MESSAGE_PROCEED;
}

message_step message_read_text_length(message_reader* reader, uint64_t* length) {
  uint32_t declared;
  if (message_read_uint32(reader, &declared) != MESSAGE_PROCEED) return MESSAGE_FAILED;
  // A peer must not make us reserve gigabytes with a few bytes: when the
  // input can tell what it still holds, a length beyond that fails now.
  int64_t remaining = istream_remaining(reader->input);
  if (remaining >= 0 && declared > static_cast<uint64_t>(remaining)) return fail(reader, "insufficient data to read text");
  *length = declared;
  return MESSAGE_PROCEED;
}

message_step message_read_text_bytes(message_reader* reader, char* buffer, uint64_t length) {
  if (buffer == nullptr) return MESSAGE_FAILED;
  if (!read_exactly(reader, buffer, length)) return fail(reader, "insufficient data to read text");
  buffer[length] = '\0';
  return MESSAGE_PROCEED;
}

message_step message_read_collection(message_reader* reader, message_node* holder, message_collection* set,
                                     const char* refusal) {
  uint32_t count;
  if (message_read_uint32(reader, &count) != MESSAGE_PROCEED) return MESSAGE_FAILED;
  for (uint32_t i = 0; i < count; i++) {
    uint64_t length;
    if (message_read_text_length(reader, &length) != MESSAGE_PROCEED) return MESSAGE_FAILED;
    auto* text = static_cast<char*>(dympage_alloc(reader->arena, length + 1, 1));
    if (message_read_text_bytes(reader, text, length) != MESSAGE_PROCEED) return MESSAGE_FAILED;
    message_entry* entry = make_entry(reader->arena, holder, text);
    if (message_set_insert(set, entry, true) != entry) message_refuse(holder, refusal);
  }
  return MESSAGE_PROCEED;
}

message_step message_read_end(message_reader* reader) {
  uint8_t byte;
  if (istream_read_len(reader->input, &byte, 1) != 0) return fail(reader, "trailing bytes");
  return MESSAGE_PROCEED;
}

// ---- writing the binary encoding ---------------------------------------

namespace {

int write_all(message_writer* writer, const void* bytes, uint64_t count, const char* failure) {
  if (ostream_write_len(writer->output, bytes, count) == count) return 0;
  writer->root->failure_reason = failure;
  return -1;
}

}  // namespace

int message_write_fingerprint(message_writer* writer) {
  return write_all(writer, message_fingerprint, MESSAGE_FINGERPRINT_SIZE, "output stream error [fingerprint]");
}

int message_write_uint32(message_writer* writer, uint32_t value) {
  uint8_t bytes[4];
  bigendian_store32(bytes, value);
  return write_all(writer, bytes, sizeof bytes, "output stream error [uint32]");
}

int message_write_int64(message_writer* writer, int64_t value) {
  uint8_t bytes[8];
  bigendian_store64(bytes, static_cast<uint64_t>(value));
  return write_all(writer, bytes, sizeof bytes, "output stream error [int64]");
}

// Only the low 32 bits of a length go on the wire; callers keep texts and
// collections below 4 GiB.
int message_write_text(message_writer* writer, const message_text* field) {
  auto length = static_cast<uint32_t>(field->length);
  if (message_write_uint32(writer, length) != 0) return -1;
  if (length == 0) return 0;
  return write_all(writer, field->text, length, "output stream error [text]");
}

int message_write_collection(message_writer* writer, const message_collection* set) {
  if (message_write_uint32(writer, static_cast<uint32_t>(set->count)) != 0) return -1;
  for (const message_entry* entry = message_set_first(set->tree); entry != nullptr; entry = message_set_next(entry)) {
    auto length = static_cast<uint32_t>(strlen(entry->text));
    if (message_write_uint32(writer, length) != 0) return -1;
    if (length != 0 && write_all(writer, entry->text, length, "output stream error [test]") != 0) return -1;
  }
  return 0;
}

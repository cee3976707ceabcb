// The machinery shared by the generated message modules: the node records
// that every message tree is built from, the write-once rules of the setters
// with their refusal texts, the failure hook and failure reason on the root,
// the recovery point, and the reader and writer of the binary encoding.
//
// One message tree lives in one message arena (a `dympage`): every node,
// text and collection entry is taken from it zero-filled and nothing is freed
// before the whole arena goes.
//
// The recovery point. Any step of handling one message that cannot go on
// calls message_recover(), which throws a message_recovery carrying the root;
// the user that owns the arena arms the point by catching it around the
// whole handling of the message and destroys the arena after the catch:
//
//   dympage* arena = image___appsrv_protocol_request___create_allocator_f();
//   auto* root = image___appsrv_protocol_request___root_t___allocate_f(arena);
//   try {
//     if (image___appsrv_protocol_request___parse_bin_f(arena, root, input) != 0)
//       message_recover(root);
//     ... use the message; message_recover(root, "end-of-stream") on a
//     failure of its own ...
//   } catch (const message_recovery& recovery) {
//     ... abandon the message; recovery.root->failure_reason says why ...
//   }
//   image___appsrv_protocol_request___destroy_allocator_f(arena);
//
// Nothing in the message modules throws by itself: parse and serialize return
// -1, setters return -1 or null. Only message_recover() throws, directly or
// from a failure hook that calls it. A user that arms the point catches
// message_recovery there, so the exception never leaves that user.
// A failure hook that goes back may do so from inside parse_bin_f or a
// setter: anything the user holds across those calls (an input stream, a
// descriptor) is released after the catch or by a guard, not after the call.
#pragma once

#include <cstdint>
#include <new>

#include "base/dympage.h"
#include "base/istream.h"
#include "base/ostream.h"
#include "protocol/message_set.h"

// Every record of a message tree begins with its context reference: the root
// refers to itself, every other record to the record that holds it. Setters
// follow these references up to the root to record failures there.
struct message_node {
  message_node* context;
};

struct message_root;
// Called by a refusing setter with the root and the refusal text, before the
// text is recorded. A hook that calls message_recover() abandons the message
// at once.
using message_failure_hook = void (*)(message_root* root, const char* text);

// The root has no room for a saved execution context: the recovery point is
// the user's catch of message_recovery, which needs nothing in the tree.
struct message_root : message_node {
  message_failure_hook failure_hook;  // null unless a user installs one
  // Null until a failure is recorded. Constant texts, or texts the user keeps
  // alive for the message's life; never freed through the root.
  const char* failure_reason;
};

// A variant field: exactly one of several alternatives, each a record.
struct message_variant {
  uint8_t set;  // 1 once an alternative was chosen
  uint32_t tag;  // number of the chosen alternative; 0 while unset
  void* payload;  // the chosen alternative's record; null while unset
};

// A text field: a byte string, zero-terminated in memory.
struct message_text {
  uint8_t set;
  char* text;  // copy in the message arena; null while unset
  uint64_t length;  // bytes without the terminator
};

// A natural-number field: a value of at least 1.
struct message_natural {
  uint8_t set;
  int64_t value;  // 0 while unset
};

// The one exception of the message machinery; see the top of this file.
struct message_recovery {
  message_root* root;
};

// Goes back to the recovery point armed around the message of `root`. A
// non-null `reason` is first stored as the root's failure reason and must
// outlive the catch.
[[noreturn]] void message_recover(message_root* root, const char* reason = nullptr);

// The 64 ASCII characters that open every encoded message.
extern const char message_fingerprint[65];
constexpr uint64_t MESSAGE_FINGERPRINT_SIZE = 64;

// ---- message arena -----------------------------------------------------

dympage* message_arena_create();
void message_arena_destroy(dympage* arena);
// `size` zero-filled bytes at `alignment` (a power of two).
void* message_arena_block(dympage* arena, uint64_t size, uint64_t alignment);
// A copy of `text` with its terminator; `length` must be the text's own.
char* message_arena_text(dympage* arena, const char* text, uint64_t length);

// A zero-filled record of type T in the arena whose context refers to
// `context`, or to the record itself when `context` is null (the root).
template <typename T>
T* message_node_allocate(dympage* arena, message_node* context) {
  T* node = new (message_arena_block(arena, sizeof(T), alignof(T))) T{};
  node->context = context != nullptr ? context : node;
  return node;
}

// ---- failures and the write-once rules ---------------------------------

// The root above any record of the tree.
message_root* message_root_of(message_node* node);

// A setter's refusal: calls the root's hook with `text`, then records `text`
// as the failure reason. `text` must be a constant.
void message_refuse(message_node* holder, const char* text);

// The variant setters' test. iwrite_setto: 0 when `variant` was unset (now
// marked set), -1 after recording `refusal`.
int message_variant_claim(message_node* holder, message_variant* variant, const char* refusal);
// iwrite_to: the payload when `tag` is already chosen, null when the variant
// is unset (and now marked set, the caller makes the payload), null after
// recording `refusal` when another alternative is chosen; `*refused` is
// set in that last case only.
void* message_variant_reuse(message_node* holder, message_variant* variant, uint32_t tag, const char* refusal,
                            bool* refused);

int message_text_set(dympage* arena, message_node* holder, message_text* field, const char* text,
                     const char* refusal);
// Reserves length + 1 zero-filled bytes for the caller to fill; null when refused.
char* message_text_alloc(dympage* arena, message_node* holder, message_text* field, uint64_t length,
                         const char* refusal);
// A reassigned field is refused before the value is looked at; then values
// below 1 are refused with "illegal value for natural number".
int message_natural_set(message_node* holder, message_natural* field, int64_t value, const char* refusal);

// iwrite_create_entry: a new entry with a copy of `text`, or null after
// recording `refusal` when the text is already present.
message_entry* message_collection_create(dympage* arena, message_node* holder, message_collection* set,
                                         const char* text, const char* refusal);
// allocate_f of a collection type: inserts without looking for an equal text.
message_entry* message_collection_allocate(dympage* arena, message_node* holder, message_collection* set,
                                           const char* text, uint64_t length);
// Removes the entry whose text equals `text`; an absent text changes nothing.
void message_collection_unlink(message_collection* set, const char* text);

// ---- reading the binary encoding ---------------------------------------

// What a generated reader does next: go on with the following field, end the
// whole reading with success (an unknown tag), or fail (reason recorded).
enum message_step : int { MESSAGE_PROCEED = 0, MESSAGE_STOP = 1, MESSAGE_FAILED = -1 };

struct message_reader {
  dympage* arena;
  message_root* root;
  istream* input;
};

message_step message_read_fingerprint(message_reader* reader);
message_step message_read_uint32(message_reader* reader, uint32_t* value);
message_step message_read_int64(message_reader* reader, int64_t* value);
// A text's declared length; fails with "insufficient data to read text" when
// the input can tell that fewer bytes remain, before anything is reserved.
message_step message_read_text_length(message_reader* reader, uint64_t* length);
// The text's bytes into `buffer` (length + 1 bytes, terminator included).
// A null buffer means that the field refused the text: the reading fails
// with the refusal already recorded.
message_step message_read_text_bytes(message_reader* reader, char* buffer, uint64_t length);
// A whole collection: count, then every entry; a duplicate entry is refused
// as by iwrite_create_entry and the reading goes on.
message_step message_read_collection(message_reader* reader, message_node* holder, message_collection* set,
                                     const char* refusal);
// parse_bin_f's last step: fails with "trailing bytes" when a byte follows.
message_step message_read_end(message_reader* reader);

// ---- writing the binary encoding ---------------------------------------

struct message_writer {
  message_root* root;
  ostream* output;
};

int message_write_fingerprint(message_writer* writer);
int message_write_uint32(message_writer* writer, uint32_t value);
int message_write_int64(message_writer* writer, int64_t value);
// The stored length, then that many bytes; an unset field is the empty text.
int message_write_text(message_writer* writer, const message_text* field);
// The count, then every entry in ascending order.
int message_write_collection(message_writer* writer, const message_collection* set);

// The management request module: its byte layout, every reader failure, the
// write-once setters, and the way back through the serializer.
#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <utility>

#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "protocol/message_testing.h"

#define REQ(name) image___appsrv_protocol_request___##name

namespace {

using Root = REQ(root_t);

// Forwards to a memory stream but, like a socket, cannot tell how much it
// still holds: a text is then reserved from its declared length and a short
// read is found afterwards.
struct OpaqueInput {
  istream base{[](istream* self, void* to, uint64_t count) {
                 return istream_read_len(reinterpret_cast<OpaqueInput*>(self)->inner, to, count);
               },
               nullptr, nullptr};
  istream* inner;
};

struct Parsed {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  int64_t unread;
  int result;
  explicit Parsed(const std::string& bytes, bool tail = false, bool opaque = false) {
    istream* input = istream_create_memory(bytes.data(), bytes.size());
    OpaqueInput wrapper{.inner = input};
    result = (tail ? REQ(parse_bin_tail_f) : REQ(parse_bin_f))(arena, root, opaque ? &wrapper.base : input);
    unread = istream_remaining(input);
    istream_destroy(input);
  }
  template <typename Payload>
  Payload* payload() const { return static_cast<Payload*>(root->type.payload); }
  std::string serialized() const {
    int ignored;  // the writer's result is checked with its failures
    return serialize_with(&REQ(serialize_bin_f), root, &ignored);
  }
};

TEST(RequestLayout, ExamplesParseAndSerializeBack) {
  // The upload of a 1,024-byte image as app, spelled out to check Wire as well.
  const std::string upload = Wire().raw(std::string("\0\0\0\x04\0\0\0\0\0\0\x04\0\0\0\0\x03" "app", 19)).str();
  ASSERT_EQ(upload, Wire().u32(4).i64(1024).text("app").str());
  const std::string odd_name("a\0b\xff", 4);  // zero and high bytes travel as they are
  const struct { std::string bytes; size_t size; uint32_t tag; } examples[] = {
      {Wire().u32(1).str(), 68, 1}, {Wire().u32(2).text("b").text("a").str(), 78, 2}, {upload, 83, 4},
      {Wire().u32(0).text("").str(), 72, 0}, {Wire().u32(2).text("x").text("x").str(), 78, 2},
      {Wire().u32(3).text(odd_name).str(), 76, 3}};
  for (const auto& example : examples) {
    EXPECT_EQ(example.bytes.size(), example.size);
    Parsed parsed(example.bytes);
    ASSERT_EQ(parsed.result, 0) << example.size;
    EXPECT_TRUE(parsed.root->type.set);
    EXPECT_EQ(parsed.root->type.tag, example.tag);
    EXPECT_EQ(parsed.root->failure_reason, nullptr);
    EXPECT_EQ(parsed.serialized(), example.bytes);
  }
  Parsed rename(examples[1].bytes), image(upload), empty(examples[3].bytes), odd(examples[5].bytes);
  auto* names = rename.payload<REQ(root___type___rename_t)>();
  EXPECT_STREQ(names->new_name.text, "b");  // the new name comes first on the wire
  EXPECT_STREQ(names->old_name.text, "a");
  EXPECT_EQ(names->old_name.length, 1u);
  auto* header = image.payload<REQ(root___type___upload_t)>();
  EXPECT_TRUE(header->image_size.set);
  EXPECT_EQ(header->image_size.value, 1024);
  EXPECT_STREQ(header->stack_name.text, "app");
  EXPECT_EQ(header->context, image.root);
  EXPECT_TRUE(empty.payload<REQ(root___type___delete_t)>()->stack_name.set);
  EXPECT_STREQ(empty.payload<REQ(root___type___delete_t)>()->stack_name.text, "");
  const message_text& field = odd.payload<REQ(root___type___select_t)>()->stack_name;
  EXPECT_EQ(field.length, 4u);
  EXPECT_EQ(std::string(field.text, 5), odd_name + '\0');
}

TEST(RequestParse, ReaderFailuresWhetherTheStreamKnowsItsSizeOrNot) {
  std::string upper = Wire().str(), last_differs = Wire().str();
  for (char& c : upper) c = static_cast<char>(toupper(c));
  last_differs[63] = '1';
  const std::string list = Wire().u32(1).str().substr(64);
  const struct { const char* what; std::string bytes; const char* reason; } cases[] = {
      {"empty input", "", "insufficient bytes to read fingerprint"},
      {"63 bytes", Wire().str().substr(0, 63), "insufficient bytes to read fingerprint"},
      {"upper-case fingerprint", upper + list, "fingerprint mismatch in binary data"},
      {"last fingerprint byte differs", last_differs + list, "fingerprint mismatch in binary data"},
      {"fingerprint alone", Wire().str(), "insufficient bytes to read uint32"},
      {"tag cut short", Wire().raw(std::string("\0\0", 2)).str(), "insufficient bytes to read uint32"},
      {"rename ends after new_name", Wire().u32(2).text("b").str(), "insufficient bytes to read uint32"},
      {"old_name cut short", Wire().u32(2).text("b").u32(3).raw("ab").str(), "insufficient data to read text"},
      {"upload without 8 bytes", Wire().u32(4).raw("1234567").str(), "insufficient bytes to read int64"},
      {"upload without a name", Wire().u32(4).i64(5).str(), "insufficient bytes to read uint32"},
      {"list and one more byte", Wire().u32(1).raw("x").str(), "trailing bytes"},
      {"unknown tag and one more byte", Wire().u32(0xffffffff).raw("x").str(), "trailing bytes"},
  };
  for (const auto& c : cases) {
    for (bool opaque : {false, true}) {
      Parsed parsed(c.bytes, false, opaque);
      EXPECT_EQ(parsed.result, -1) << c.what << (opaque ? ", opaque stream" : "");
      EXPECT_EQ(reason_of(parsed.root), c.reason) << c.what << (opaque ? ", opaque stream" : "");
    }
  }
}

TEST(RequestParse, DeclaredLengthBeyondTheInputFailsBeforeAnythingIsReserved) {
  Parsed parsed(Wire().u32(0).u32(0xffffffff).raw("abc").str());
  EXPECT_EQ(parsed.result, -1);
  EXPECT_EQ(reason_of(parsed.root), "insufficient data to read text");
  EXPECT_LT(dympage_usage(parsed.arena), 2 * DYMPAGE_DEFAULT_PAGE_SIZE);
  EXPECT_FALSE(parsed.payload<REQ(root___type___delete_t)>()->stack_name.set);
}

TEST(RequestParse, UnknownTagEndsTheReadingAndTailLeavesWhatFollows) {
  for (bool tail : {false, true}) {
    Parsed unknown(Wire().u32(5).str(), tail);
    EXPECT_EQ(unknown.result, 0) << tail;
    EXPECT_FALSE(unknown.root->type.set);
    EXPECT_EQ(unknown.root->type.tag, 0u);
    EXPECT_EQ(unknown.root->type.payload, nullptr);
  }
  Parsed image(Wire().u32(1).raw("image").str(), true);
  EXPECT_EQ(image.result, 0);
  EXPECT_EQ(image.unread, 5);
  EXPECT_EQ(image.root->failure_reason, nullptr);
}

TEST(RequestParse, NaturalNumberRefusalsLeaveTheParseGoingOn) {
  for (int64_t size : {int64_t{0}, int64_t{-1}, INT64_MIN, int64_t{1}, INT64_MAX}) {
    Parsed parsed(Wire().u32(4).i64(size).text("app").str());
    auto* upload = parsed.payload<REQ(root___type___upload_t)>();
    EXPECT_EQ(parsed.result, 0) << size;
    EXPECT_STREQ(upload->stack_name.text, "app");
    EXPECT_EQ(upload->image_size.set != 0, size >= 1) << size;
    EXPECT_EQ(upload->image_size.value, size >= 1 ? size : 0);
    EXPECT_EQ(reason_of(parsed.root), size >= 1 ? "(none)" : "illegal value for natural number") << size;
  }
}

TEST(RequestSetters, VariantsAreChosenOnce) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  auto* upload = REQ(root_t___type___iwrite_to___upload)(arena, root);
  ASSERT_NE(upload, nullptr);
  EXPECT_TRUE(root->type.set);
  EXPECT_EQ(REQ(root_t___type___iwrite_to___upload)(arena, root), upload);  // the same alternative again
  EXPECT_EQ(root->failure_reason, nullptr);
  EXPECT_EQ(REQ(root_t___type___iwrite_setto___upload)(arena, root), nullptr);  // refused even for the same one
  EXPECT_EQ(reason_of(root), "reassigning property: type");
  root->failure_reason = nullptr;
  EXPECT_EQ(REQ(root_t___type___iwrite_to___list)(arena, root), nullptr);
  EXPECT_EQ(reason_of(root), "reassigning property: type");
  root->failure_reason = nullptr;
  EXPECT_EQ(parse_with(&REQ(parse_bin_f), arena, root, Wire().u32(0).text("a").str()), -1);  // no reader's way round
  EXPECT_EQ(reason_of(root), "reassigning property: type");
  EXPECT_EQ(root->type.tag, 4u);
  EXPECT_EQ(root->type.payload, upload);
}

TEST(RequestSetters, FieldsAreWrittenOnce) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  auto* rename = REQ(root_t___type___iwrite_setto___rename)(arena, root);
  char first[] = "first";
  ASSERT_EQ(REQ(root___type___rename_t___new_name___iwrite_set)(arena, rename, first), 0);
  first[0] = 'F';  // the field holds a copy
  EXPECT_EQ(REQ(root___type___rename_t___new_name___iwrite_alloc)(arena, rename, 4), nullptr);
  EXPECT_EQ(reason_of(root), "reassigning property: new_name");
  EXPECT_STREQ(rename->new_name.text, "first");
  EXPECT_EQ(rename->new_name.length, 5u);
  char* old_name = REQ(root___type___rename_t___old_name___iwrite_alloc)(arena, rename, 3);
  ASSERT_NE(old_name, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(old_name) % 8, 0u);
  EXPECT_EQ(std::string(old_name, 4), std::string(4, '\0'));
  EXPECT_EQ(REQ(root___type___rename_t___old_name___iwrite_set)(arena, rename, "x"), -1);
  EXPECT_EQ(reason_of(root), "reassigning property: old_name");

  Root* other = REQ(root_t___allocate_f)(arena);
  auto* upload = REQ(root_t___type___iwrite_setto___upload)(arena, other);
  ASSERT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 7), 0);
  // A second write is refused as a reassignment before its value is looked at.
  EXPECT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 0), -1);
  EXPECT_EQ(reason_of(other), "reassigning property: image_size");
  EXPECT_EQ(upload->image_size.value, 7);
}

TEST(RequestWriter, ShortOutputNamesThePrimitiveAndKeepsWhatWasTaken) {
  const std::string whole = Wire().u32(4).i64(7).text("app").str();
  Parsed upload(whole);
  const std::pair<int64_t, const char*> cases[] = {
      {0, "output stream error [fingerprint]"}, {63, "output stream error [fingerprint]"},
      {66, "output stream error [uint32]"},     {75, "output stream error [int64]"},
      {79, "output stream error [uint32]"},     {81, "output stream error [text]"}, {83, "(none)"}};
  for (auto [capacity, reason] : cases) {
    int result;
    std::string written = serialize_with(&REQ(serialize_bin_f), upload.root, &result, capacity);
    EXPECT_EQ(result, capacity < 83 ? -1 : 0) << capacity;
    EXPECT_EQ(reason_of(upload.root), reason) << capacity;
    EXPECT_EQ(written, whole.substr(0, static_cast<size_t>(capacity))) << capacity;
    upload.root->failure_reason = nullptr;
  }
}

}  // namespace

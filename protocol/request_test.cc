// The management request module: its byte layout, every reader failure, the
// write-once setters, and the way back through the serializer.
#include <gtest/gtest.h>

#include <cctype>

#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "tests/support/message_testing.h"

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
  int result;
  explicit Parsed(const std::string& bytes, bool opaque = false) {
    istream* input = istream_create_memory(bytes.data(), bytes.size());
    OpaqueInput wrapper{.inner = input};
    result = REQ(parse_bin_f)(arena, root, opaque ? &wrapper.base : input);
    istream_destroy(input);
  }
  template <typename Payload>
  Payload* payload() const { return static_cast<Payload*>(root->type.payload); }
};

TEST(RequestLayout, ExamplesParseAndSerializeBack) {
  // The upload of a 1,024-byte image as app, spelled out to check Wire as well.
  const std::string upload = Wire().raw(std::string("\0\0\0\x04\0\0\0\0\0\0\x04\0\0\0\0\x03" "app", 19)).str();
  ASSERT_EQ(upload, Wire().u32(4).i64(1024).text("app").str());
  // Each is written back, then into a stream that takes only `cut` bytes: the
  // failure names the primitive cut, and what was taken stays.
  const struct { std::string bytes; uint32_t tag; int64_t cut; const char* reason; } examples[] = {
      {Wire().u32(1).str(), 1, 63, "output stream error [fingerprint]"},
      {Wire().u32(2).text("b").text("a").str(), 2, 77, "output stream error [text]"},
      {upload, 4, 75, "output stream error [int64]"},
      {Wire().u32(0).text("").str(), 0, 70, "output stream error [uint32]"},
      {Wire().u32(2).text("x").text("x").str(), 2, 66, "output stream error [uint32]"},
      {Wire().u32(3).text(std::string("a\0b\xff", 4)).str(), 3, 74, "output stream error [text]"}};
  for (const auto& example : examples) {
    SCOPED_TRACE(example.tag);
    Parsed parsed(example.bytes);
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.root->type.tag, example.tag);
    EXPECT_EQ(parsed.root->failure_reason, nullptr);
    int result;
    EXPECT_EQ(serialize_with(&REQ(serialize_bin_f), parsed.root, &result), example.bytes);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(serialize_with(&REQ(serialize_bin_f), parsed.root, &result, example.cut),
              example.bytes.substr(0, example.cut));
    EXPECT_EQ(result, -1);
    EXPECT_STREQ(parsed.root->failure_reason, example.reason);
  }
  Parsed rename(examples[1].bytes), empty(examples[3].bytes);
  EXPECT_STREQ(rename.payload<REQ(root___type___rename_t)>()->new_name.text, "b");  // the new name comes first
  EXPECT_STREQ(rename.payload<REQ(root___type___rename_t)>()->old_name.text, "a");
  EXPECT_TRUE(empty.payload<REQ(root___type___delete_t)>()->stack_name.set);
}

TEST(RequestParse, ReaderFailuresWhetherTheStreamKnowsItsSizeOrNot) {
  std::string upper = Wire().str(), last_differs = Wire().str();
  for (char& c : upper) c = static_cast<char>(toupper(c));
  last_differs[63] = '1';
  const std::string list = Wire().u32(1).str().substr(64);
  const struct { const char* what; std::string bytes; const char* reason; } cases[] = {
      {"63 bytes", Wire().str().substr(0, 63), "insufficient bytes to read fingerprint"},
      {"upper-case fingerprint", upper + list, "fingerprint mismatch in binary data"},
      {"last fingerprint byte differs", last_differs + list, "fingerprint mismatch in binary data"},
      {"fingerprint alone", Wire().str(), "insufficient bytes to read uint32"},
      {"tag cut short", Wire().raw(std::string("\0\0", 2)).str(), "insufficient bytes to read uint32"},
      {"rename ends after new_name", Wire().u32(2).text("b").str(), "insufficient bytes to read uint32"},
      {"old_name cut short", Wire().u32(2).text("b").u32(3).raw("ab").str(), "insufficient data to read text"},
      {"upload without 8 bytes", Wire().u32(4).raw("1234567").str(), "insufficient bytes to read int64"},
      {"list and one more byte", Wire().u32(1).raw("x").str(), "trailing bytes"},
      {"unknown tag and one more byte", Wire().u32(0xffffffff).raw("x").str(), "trailing bytes"},
  };
  for (const auto& c : cases) {
    for (bool opaque : {false, true}) {
      Parsed parsed(c.bytes, opaque);
      EXPECT_EQ(parsed.result, -1) << c.what << (opaque ? ", opaque stream" : "");
      EXPECT_STREQ(parsed.root->failure_reason, c.reason) << c.what << (opaque ? ", opaque stream" : "");
    }
  }
}

TEST(RequestParse, DeclaredLengthBeyondTheInputFailsBeforeAnythingIsReserved) {
  Parsed parsed(Wire().u32(0).u32(0xffffffff).raw("abc").str());
  EXPECT_EQ(parsed.result, -1);
  EXPECT_STREQ(parsed.root->failure_reason, "insufficient data to read text");
  EXPECT_LT(dympage_usage(parsed.arena), 2 * DYMPAGE_DEFAULT_PAGE_SIZE);
}

TEST(RequestParse, AnUnknownTagEndsTheReadingWithNothingChosen) {
  Parsed unknown(Wire().u32(5).str());
  EXPECT_EQ(unknown.result, 0);
  EXPECT_FALSE(unknown.root->type.set);  // what a reader looks at before the tag
}

TEST(RequestParse, NaturalNumberRefusalsLeaveTheParseGoingOn) {
  for (int64_t size : {int64_t{0}, int64_t{-1}, INT64_MIN, int64_t{1}, int64_t{1024}, INT64_MAX}) {
    Parsed parsed(Wire().u32(4).i64(size).text("app").str());
    auto* upload = parsed.payload<REQ(root___type___upload_t)>();
    EXPECT_EQ(parsed.result, 0) << size;
    EXPECT_STREQ(upload->stack_name.text, "app");
    EXPECT_EQ(upload->image_size.set != 0, size >= 1) << size;
    EXPECT_EQ(upload->image_size.value, size >= 1 ? size : 0);
    EXPECT_STREQ(parsed.root->failure_reason, size >= 1 ? nullptr : "illegal value for natural number") << size;
  }
}

// The write-once rules of the message machinery, shared by every module.
TEST(RequestSetters, VariantsAndFieldsAreWrittenOnce) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  auto* rename = REQ(root_t___type___iwrite_to___rename)(arena, root);
  EXPECT_EQ(REQ(root_t___type___iwrite_to___rename)(arena, root), rename);  // the same alternative again
  EXPECT_EQ(root->failure_reason, nullptr);
  EXPECT_EQ(REQ(root_t___type___iwrite_setto___rename)(arena, root), nullptr);  // refused even for the same one
  EXPECT_STREQ(root->failure_reason, "reassigning property: type");
  root->failure_reason = nullptr;
  EXPECT_EQ(REQ(root_t___type___iwrite_to___list)(arena, root), nullptr);
  EXPECT_STREQ(root->failure_reason, "reassigning property: type");
  EXPECT_EQ(root->type.payload, rename);

  char first[] = "first";
  ASSERT_EQ(REQ(root___type___rename_t___new_name___iwrite_set)(arena, rename, first), 0);
  first[0] = 'F';  // the field holds a copy
  EXPECT_EQ(REQ(root___type___rename_t___new_name___iwrite_alloc)(arena, rename, 4), nullptr);
  EXPECT_STREQ(root->failure_reason, "reassigning property: new_name");
  EXPECT_STREQ(rename->new_name.text, "first");
  char* old_name = REQ(root___type___rename_t___old_name___iwrite_alloc)(arena, rename, 3);
  EXPECT_EQ(std::string(old_name, 4), std::string(4, '\0'));  // zero-filled, terminator included
  EXPECT_EQ(REQ(root___type___rename_t___old_name___iwrite_set)(arena, rename, "x"), -1);
  EXPECT_STREQ(root->failure_reason, "reassigning property: old_name");

  // A second natural number is refused as a reassignment before its value is looked at.
  Root* other = REQ(root_t___allocate_f)(arena);
  auto* upload = REQ(root_t___type___iwrite_setto___upload)(arena, other);
  ASSERT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 7), 0);
  EXPECT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 0), -1);
  EXPECT_STREQ(other->failure_reason, "reassigning property: image_size");
  EXPECT_EQ(upload->image_size.value, 7);
}

}  // namespace

// The management request module: its byte layout, every reader failure, the
// write-once setters, and the way back through the serializer.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "protocol/message_testing.h"

#define REQ(name) image___appsrv_protocol_request___##name

namespace {

using Root = REQ(root_t);

struct Parsed {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  int result = 0;
  int64_t unread = 0;
  explicit Parsed(const std::string& bytes, bool tail = false) {
    result = parse_with(tail ? &REQ(parse_bin_tail_f) : &REQ(parse_bin_f), arena, root, bytes, &unread);
  }
};

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out += std::string{digits[c >> 4], digits[c & 15], ' '};
  return out;
}

TEST(RequestLayout, ExamplesParse) {
  Parsed list(Wire().u32(1).str());
  ASSERT_EQ(list.result, 0);
  EXPECT_EQ(Wire().u32(1).str().size(), 68u);
  EXPECT_TRUE(list.root->type.set);
  EXPECT_EQ(list.root->type.tag, 1u);
  EXPECT_NE(list.root->type.payload, nullptr);
  EXPECT_EQ(list.root->failure_reason, nullptr);

  std::string rename = Wire().u32(2).text("b").text("a").str();
  ASSERT_EQ(rename.size(), 78u);
  Parsed parsed_rename(rename);
  ASSERT_EQ(parsed_rename.result, 0);
  ASSERT_EQ(parsed_rename.root->type.tag, 2u);
  auto* names = static_cast<REQ(root___type___rename_t)*>(parsed_rename.root->type.payload);
  EXPECT_STREQ(names->new_name.text, "b");
  EXPECT_STREQ(names->old_name.text, "a");
  EXPECT_EQ(names->old_name.length, 1u);

  // The upload header spelled out byte by byte, so that the helper that
  // builds the other examples is checked as well.
  std::string upload = Wire().u32(4).i64(1024).text("app").str();
  ASSERT_EQ(upload.size(), 83u);
  EXPECT_EQ(hex(upload.substr(64)), "00 00 00 04 00 00 00 00 00 00 04 00 00 00 00 03 61 70 70 ");
  EXPECT_EQ(upload.substr(0, 8), "d95b246c");
  Parsed parsed_upload(upload);
  ASSERT_EQ(parsed_upload.result, 0);
  auto* image = static_cast<REQ(root___type___upload_t)*>(parsed_upload.root->type.payload);
  EXPECT_TRUE(image->image_size.set);
  EXPECT_EQ(image->image_size.value, 1024);
  EXPECT_STREQ(image->stack_name.text, "app");
  EXPECT_EQ(image->context, parsed_upload.root);
  EXPECT_EQ(parsed_upload.root->context, parsed_upload.root);
}

TEST(RequestLayout, SerializeWritesTheSameBytes) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  auto* rename = REQ(root_t___type___iwrite_setto___rename)(arena, root);
  ASSERT_EQ(REQ(root___type___rename_t___old_name___iwrite_set)(arena, rename, "a"), 0);
  ASSERT_EQ(REQ(root___type___rename_t___new_name___iwrite_set)(arena, rename, "b"), 0);
  REQ(finalize_f)(root);
  int result;
  EXPECT_EQ(serialize_with(&REQ(serialize_bin_f), root, &result), Wire().u32(2).text("b").text("a").str());
  EXPECT_EQ(result, 0);

  Root* upload_root = REQ(root_t___allocate_f)(arena);
  auto* upload = REQ(root_t___type___iwrite_setto___upload)(arena, upload_root);
  ASSERT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 1024), 0);
  char* name = REQ(root___type___upload_t___stack_name___iwrite_alloc)(arena, upload, 3);
  memcpy(name, "app", 3);
  EXPECT_EQ(serialize_with(&REQ(serialize_bin_f), upload_root, &result), Wire().u32(4).i64(1024).text("app").str());
}

TEST(RequestLayout, RoundTripKeepsEveryByteValue) {
  std::string name("a\0b\xff", 4);  // zero and high bytes travel as they are
  std::string bytes = Wire().u32(3).text(name).str();
  Parsed parsed(bytes);
  ASSERT_EQ(parsed.result, 0);
  auto* select = static_cast<REQ(root___type___select_t)*>(parsed.root->type.payload);
  EXPECT_EQ(select->stack_name.length, 4u);
  EXPECT_EQ(std::string(select->stack_name.text, 5), name + std::string(1, '\0'));
  int result;
  EXPECT_EQ(serialize_with(&REQ(serialize_bin_f), parsed.root, &result), bytes);
}

TEST(RequestParse, EmptyTextsAndEqualNames) {
  Parsed empty(Wire().u32(0).text("").str());
  ASSERT_EQ(empty.result, 0);
  auto* doomed = static_cast<REQ(root___type___delete_t)*>(empty.root->type.payload);
  EXPECT_TRUE(doomed->stack_name.set);
  EXPECT_STREQ(doomed->stack_name.text, "");

  Parsed same(Wire().u32(2).text("x").text("x").str());
  EXPECT_EQ(same.result, 0);
}

TEST(RequestParse, ReaderFailures) {
  struct Case {
    const char* what;
    std::string bytes;
    const char* reason;
  };
  std::string upper(message_fingerprint, 64);
  for (char& c : upper) c = static_cast<char>(toupper(c));
  std::string last_differs(message_fingerprint, 64);
  last_differs[63] = '1';
  const Case cases[] = {
      {"63 bytes", Wire().str().substr(0, 63), "insufficient bytes to read fingerprint"},
      {"empty input", "", "insufficient bytes to read fingerprint"},
      {"upper-case fingerprint", upper + Wire().u32(1).str().substr(64), "fingerprint mismatch in binary data"},
      {"last fingerprint byte differs", last_differs + Wire().u32(1).str().substr(64), "fingerprint mismatch in binary data"},
      {"fingerprint alone", Wire().str(), "insufficient bytes to read uint32"},
      {"tag cut short", Wire().raw(std::string("\0\0", 2)).str(), "insufficient bytes to read uint32"},
      {"rename ends after new_name", Wire().u32(2).text("b").str(), "insufficient bytes to read uint32"},
      {"old_name cut short", Wire().u32(2).text("b").u32(3).raw("ab").str(), "insufficient data to read text"},
      {"upload without 8 bytes", Wire().u32(4).raw("1234567").str(), "insufficient bytes to read int64"},
      {"upload without a name", Wire().u32(4).i64(5).str(), "insufficient bytes to read uint32"},
      {"list and one more byte", Wire().u32(1).raw("x").str(), "trailing bytes"},
      {"delete and one more byte", Wire().u32(0).text("a").raw("x").str(), "trailing bytes"},
  };
  for (const Case& c : cases) {
    Parsed parsed(c.bytes);
    EXPECT_EQ(parsed.result, -1) << c.what;
    EXPECT_EQ(reason_of(parsed.root), c.reason) << c.what;
  }
}

TEST(RequestParse, DeclaredLengthBeyondInputReservesNothing) {
  Parsed parsed(Wire().u32(0).u32(0xffffffff).raw("abc").str());
  EXPECT_EQ(parsed.result, -1);
  EXPECT_EQ(reason_of(parsed.root), "insufficient data to read text");
  EXPECT_LT(dympage_usage(parsed.arena), 2 * DYMPAGE_DEFAULT_PAGE_SIZE);
  auto* doomed = static_cast<REQ(root___type___delete_t)*>(parsed.root->type.payload);
  EXPECT_FALSE(doomed->stack_name.set);
}

// A stream that cannot tell how much it still holds: the text is reserved
// from its declared length and the short read is found afterwards.
struct OpaqueInput {
  istream base;
  std::string bytes;
  size_t position;
};

uint64_t opaque_read(istream* stream, void* destination, uint64_t count) {
  auto* input = reinterpret_cast<OpaqueInput*>(stream);
  uint64_t taken = std::min<uint64_t>(count, input->bytes.size() - input->position);
  memcpy(destination, input->bytes.data() + input->position, taken);
  input->position += taken;
  return taken;
}

TEST(RequestParse, ShortTextOnAStreamThatCannotTellWhatRemains) {
  OpaqueInput input{{opaque_read, nullptr, nullptr}, Wire().u32(3).u32(10).raw("abc").str(), 0};
  ASSERT_EQ(istream_remaining(&input.base), -1);
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  EXPECT_EQ(REQ(parse_bin_f)(arena, root, &input.base), -1);
  EXPECT_EQ(reason_of(root), "insufficient data to read text");
}

TEST(RequestParse, UnknownTagEndsTheReadingWithTypeUnset) {
  std::string bytes = Wire().u32(5).str();
  Parsed whole(bytes), tail(bytes, true);
  for (Parsed* parsed : {&whole, &tail}) {
    EXPECT_EQ(parsed->result, 0);
    EXPECT_FALSE(parsed->root->type.set);
    EXPECT_EQ(parsed->root->type.tag, 0u);
    EXPECT_EQ(parsed->root->type.payload, nullptr);
  }
  Parsed trailing(Wire().u32(0xffffffff).raw("x").str());
  EXPECT_EQ(trailing.result, -1);
  EXPECT_EQ(reason_of(trailing.root), "trailing bytes");
}

TEST(RequestParse, TailLeavesWhatFollowsUnread) {
  Parsed parsed(Wire().u32(1).raw("image").str(), true);
  EXPECT_EQ(parsed.result, 0);
  EXPECT_EQ(parsed.unread, 5);
  EXPECT_EQ(parsed.root->failure_reason, nullptr);
}

TEST(RequestParse, NaturalNumberRefusalsLeaveTheParseGoingOn) {
  for (int64_t refused : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
    Parsed parsed(Wire().u32(4).i64(refused).text("app").str());
    EXPECT_EQ(parsed.result, 0) << refused;
    EXPECT_EQ(reason_of(parsed.root), "illegal value for natural number");
    auto* upload = static_cast<REQ(root___type___upload_t)*>(parsed.root->type.payload);
    EXPECT_FALSE(upload->image_size.set);
    EXPECT_EQ(upload->image_size.value, 0);
    EXPECT_STREQ(upload->stack_name.text, "app");
  }
  for (int64_t accepted : {int64_t{1}, INT64_MAX}) {
    Parsed parsed(Wire().u32(4).i64(accepted).text("app").str());
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.root->failure_reason, nullptr);
    EXPECT_EQ(static_cast<REQ(root___type___upload_t)*>(parsed.root->type.payload)->image_size.value, accepted);
  }
}

TEST(RequestParse, ParsingIntoAnUsedRootFailsOnTheRefusedVariant) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  ASSERT_NE(REQ(root_t___type___iwrite_setto___list)(arena, root), nullptr);
  EXPECT_EQ(parse_with(&REQ(parse_bin_f), arena, root, Wire().u32(0).text("a").str()), -1);
  EXPECT_EQ(reason_of(root), "reassigning property: type");
  EXPECT_EQ(root->type.tag, 1u);
}

TEST(RequestSetters, TextFieldsAreWrittenOnce) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  auto* rename = REQ(root_t___type___iwrite_setto___rename)(arena, root);
  ASSERT_EQ(REQ(root___type___rename_t___new_name___iwrite_set)(arena, rename, "first"), 0);
  EXPECT_EQ(REQ(root___type___rename_t___new_name___iwrite_set)(arena, rename, "second"), -1);
  EXPECT_EQ(reason_of(root), "reassigning property: new_name");
  EXPECT_EQ(REQ(root___type___rename_t___new_name___iwrite_alloc)(arena, rename, 4), nullptr);
  EXPECT_STREQ(rename->new_name.text, "first");
  EXPECT_EQ(rename->new_name.length, 5u);

  char* old_name = REQ(root___type___rename_t___old_name___iwrite_alloc)(arena, rename, 3);
  ASSERT_NE(old_name, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(old_name) % 8, 0u);
  EXPECT_EQ(std::string(old_name, 4), std::string(4, '\0'));
  EXPECT_EQ(REQ(root___type___rename_t___old_name___iwrite_set)(arena, rename, "x"), -1);
  EXPECT_EQ(reason_of(root), "reassigning property: old_name");

  auto* again = REQ(root_t___type___iwrite_to___rename)(arena, root);
  EXPECT_EQ(again, rename);
  for (auto refused : {&REQ(root_t___type___iwrite_setto___select), &REQ(root_t___type___iwrite_to___select)}) {
    root->failure_reason = nullptr;
    EXPECT_EQ(refused(arena, root), nullptr);
    EXPECT_EQ(reason_of(root), "reassigning property: type");
  }
  EXPECT_EQ(root->type.tag, 2u);
  EXPECT_EQ(root->type.payload, rename);
}

TEST(RequestSetters, VariantWriteOnceRules) {
  TestArena arena;
  Root* setto = REQ(root_t___allocate_f)(arena);
  auto* first = REQ(root_t___type___iwrite_setto___delete)(arena, setto);
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(setto->type.set);
  EXPECT_EQ(setto->type.tag, 0u);
  EXPECT_EQ(REQ(root_t___type___iwrite_setto___delete)(arena, setto), nullptr);
  EXPECT_EQ(reason_of(setto), "reassigning property: type");
  EXPECT_EQ(setto->type.payload, first);

  Root* to = REQ(root_t___allocate_f)(arena);
  auto* chosen = REQ(root_t___type___iwrite_to___upload)(arena, to);
  ASSERT_NE(chosen, nullptr);
  EXPECT_TRUE(to->type.set);
  EXPECT_EQ(to->type.tag, 4u);
  EXPECT_EQ(REQ(root_t___type___iwrite_to___upload)(arena, to), chosen);
  EXPECT_EQ(to->failure_reason, nullptr);
  EXPECT_EQ(REQ(root_t___type___iwrite_to___list)(arena, to), nullptr);
  EXPECT_EQ(reason_of(to), "reassigning property: type");
}

TEST(RequestSetters, NaturalNumbers) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  auto* upload = REQ(root_t___type___iwrite_setto___upload)(arena, root);
  for (int64_t refused : {int64_t{0}, int64_t{-1}}) {
    root->failure_reason = nullptr;
    EXPECT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, refused), -1);
    EXPECT_EQ(reason_of(root), "illegal value for natural number");
    EXPECT_FALSE(upload->image_size.set);
  }
  ASSERT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, INT64_MAX), 0);
  EXPECT_EQ(upload->image_size.value, INT64_MAX);
  // A second write is refused as a reassignment before its value is looked at.
  EXPECT_EQ(REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 0), -1);
  EXPECT_EQ(reason_of(root), "reassigning property: image_size");
  EXPECT_EQ(upload->image_size.value, INT64_MAX);
}

TEST(RequestWriter, ShortOutputNamesThePrimitive) {
  TestArena arena;
  Root* root = REQ(root_t___allocate_f)(arena);
  auto* upload = REQ(root_t___type___iwrite_setto___upload)(arena, root);
  REQ(root___type___upload_t___image_size___iwrite_set)(arena, upload, 7);
  REQ(root___type___upload_t___stack_name___iwrite_set)(arena, upload, "app");
  std::string whole = Wire().u32(4).i64(7).text("app").str();
  struct Case {
    int64_t capacity;
    const char* reason;
  };
  for (Case c : {Case{0, "output stream error [fingerprint]"}, Case{63, "output stream error [fingerprint]"},
                 Case{66, "output stream error [uint32]"}, Case{75, "output stream error [int64]"},
                 Case{79, "output stream error [uint32]"}, Case{81, "output stream error [text]"}}) {
    root->failure_reason = nullptr;
    int result;
    std::string written = serialize_with(&REQ(serialize_bin_f), root, &result, c.capacity);
    EXPECT_EQ(result, -1) << c.capacity;
    EXPECT_EQ(reason_of(root), c.reason) << c.capacity;
    // What was taken before the failure stays in the stream.
    EXPECT_EQ(written, whole.substr(0, static_cast<size_t>(c.capacity))) << c.capacity;
  }
  int result;
  EXPECT_EQ(serialize_with(&REQ(serialize_bin_f), root, &result, static_cast<int64_t>(whole.size())), whole);
  EXPECT_EQ(result, 0);
}

}  // namespace

// The management reply module: its byte layout, the ordered set of stack
// names, and the way back through the parser.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "tests/support/message_testing.h"

#define REP(name) image___appsrv_protocol_reply___##name
#define NAMES(name) REP(root___status___success___type___data___stack_names_t___##name)

namespace {

using Root = REP(root_t);
using Data = REP(root___status___success___type___data_t);
using Names = std::vector<std::string>;

struct Reply {
  TestArena arena;
  Root* root = REP(root_t___allocate_f)(arena);

  Data* list(std::initializer_list<const char*> names) {
    auto* success = REP(root_t___status___iwrite_setto___success)(arena, root);
    Data* data = REP(root___status___success_t___type___iwrite_setto___data)(arena, success);
    for (const char* name : names) add(data, name);
    return data;
  }
  REP(root___status___failure_t)* fail(const char* reason) {
    auto* failure = REP(root_t___status___iwrite_setto___failure)(arena, root);
    if (reason != nullptr) REP(root___status___failure_t___reason___iwrite_set)(arena, failure, reason);
    return failure;
  }
  message_entry* add(Data* data, const char* name) {
    return REP(root___status___success___type___data_t___stack_names___iwrite_create_entry)(arena, data, name);
  }
  std::string bytes(int* result = nullptr, int64_t capacity = -1) {
    REP(finalize_f)(root);
    return serialize_with(&REP(serialize_bin_f), root, result, capacity);
  }
};

// The names as a reader walks them, read-only.
Names names_of(const Data* data) {
  Names names;
  message_cursor state;
  for (const message_entry* entry = NAMES(cit_init)(data->stack_names.tree, &state); entry != nullptr;
       entry = NAMES(cit_next)(&state))
    names.emplace_back(entry->text);
  return names;
}

TEST(ReplyLayout, Examples) {
  Reply failure, two, none, empty, upgrade, reasonless;
  failure.fail("unknown name");
  two.list({"beta", "alpha"});
  none.list({});
  REP(root___status___success_t___type___iwrite_setto___empty)(
      empty.arena, REP(root_t___status___iwrite_setto___success)(empty.arena, empty.root));
  REP(root_t___status___iwrite_setto___upgrade)(upgrade.arena, upgrade.root);
  reasonless.fail(nullptr);
  const struct { Reply* reply; std::string bytes; } examples[] = {
      {&failure, Wire().u32(0).text("unknown name").str()},
      {&two, Wire().u32(1).u32(0).u32(2).text("alpha").text("beta").str()},
      {&none, Wire().u32(1).u32(0).u32(0).str()},
      {&empty, Wire().u32(1).u32(1).str()},
      {&upgrade, Wire().u32(2).str()},
      {&reasonless, Wire().u32(0).u32(0).str()}};  // an unwritten reason goes out empty
  for (const auto& example : examples) {
    int result;
    EXPECT_EQ(example.reply->bytes(&result), example.bytes);
    EXPECT_EQ(result, 0);
  }
  // Only a name of the collection is written by its own primitive.
  int result;
  EXPECT_EQ(two.bytes(&result, 82).size(), 82u);
  EXPECT_EQ(result, -1);
  EXPECT_STREQ(two.root->failure_reason, "output stream error [test]");
}

TEST(ReplyNames, ComeOutInByteWiseOrderOnceEachWhateverTheOrderOfAddingAndUnlinking) {
  Reply reply;
  Data* data = reply.list({"beta", "alpha", "Alpha", "app2", "\xc3\xa9t\xc3\xa9", "Zeta", "app"});
  EXPECT_EQ(reply.add(data, "alpha"), nullptr);
  EXPECT_STREQ(reply.root->failure_reason, "duplicate entry in collection: stack_names");
  // Zeta before alpha, app before app2, bytes above 0x7f after every letter.
  const Names sorted = {"Alpha", "Zeta", "alpha", "app", "app2", "beta", "\xc3\xa9t\xc3\xa9"};
  EXPECT_EQ(names_of(data), sorted);
  Wire expected = Wire().u32(1).u32(0).u32(7);
  for (const std::string& name : sorted) expected.text(name);
  EXPECT_EQ(reply.bytes(), expected.str());
  for (const char* name : {"zz", "app2"})  // only a name present goes
    REP(root___status___success___type___data_t___stack_names___iwrite_unlink_entry)(reply.arena, data, name);
  EXPECT_EQ(data->stack_names.count, 6u);
  EXPECT_EQ(NAMES(find_cf)(data, "app2"), nullptr);
}

TEST(ReplyParse, NamesFromAPeerAreOrderedAndDeduplicatedAndWrittenBack) {
  TestArena arena;
  Root* root = REP(root_t___allocate_f)(arena);
  const std::string peer = Wire().u32(1).u32(0).u32(3).text("b").text("a").text("b").str();
  ASSERT_EQ(parse_with(&REP(parse_bin_f), arena, root, peer), 0);  // the refused duplicate does not stop the reading
  EXPECT_STREQ(root->failure_reason, "duplicate entry in collection: stack_names");
  auto* data = static_cast<Data*>(static_cast<REP(root___status___success_t)*>(root->status.payload)->type.payload);
  EXPECT_EQ(names_of(data), (Names{"a", "b"}));
  EXPECT_EQ(serialize_with(&REP(serialize_bin_f), root), Wire().u32(1).u32(0).u32(2).text("a").text("b").str());

  // A peer whose list ends before its count of names.
  Root* cut = REP(root_t___allocate_f)(arena);
  EXPECT_EQ(parse_with(&REP(parse_bin_f), arena, cut, Wire().u32(1).u32(0).u32(2).text("a").str()), -1);
  EXPECT_STREQ(cut->failure_reason, "insufficient bytes to read uint32");
}

}  // namespace

// The management reply module: its byte layout, the ordered set of stack
// names, the writer's failures, and the way back through the parser.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/message_testing.h"

#define REP(name) image___appsrv_protocol_reply___##name

namespace {

using Root = REP(root_t);
using Data = REP(root___status___success___type___data_t);

struct Reply {
  TestArena arena;
  Root* root = REP(root_t___allocate_f)(arena);

  Data* list(std::initializer_list<const char*> names) {
    auto* success = REP(root_t___status___iwrite_setto___success)(arena, root);
    Data* data = REP(root___status___success_t___type___iwrite_setto___data)(arena, success);
    for (const char* name : names) add(data, name);
    return data;
  }
  message_entry* add(Data* data, const char* name) {
    return REP(root___status___success___type___data_t___stack_names___iwrite_create_entry)(arena, data, name);
  }
  std::string bytes(int* result = nullptr, int64_t capacity = -1) {
    int ignored;
    REP(finalize_f)(root);
    return serialize_with(&REP(serialize_bin_f), root, result != nullptr ? result : &ignored, capacity);
  }
};

std::vector<std::string> names_of(Data* data) {
  std::vector<std::string> names;
  message_cursor state;
  for (message_entry* entry = REP(root___status___success___type___data___stack_names_t___it_init)(data->stack_names.tree, &state);
       entry != nullptr; entry = REP(root___status___success___type___data___stack_names_t___it_next)(&state))
    names.emplace_back(entry->text);
  return names;
}

TEST(ReplyLayout, Examples) {
  Reply failure;
  auto* failed = REP(root_t___status___iwrite_setto___failure)(failure.arena, failure.root);
  REP(root___status___failure_t___reason___iwrite_set)(failure.arena, failed, "unknown name");
  std::string bytes = failure.bytes();
  ASSERT_EQ(bytes.size(), 84u);
  EXPECT_EQ(bytes, Wire().u32(0).raw(std::string("\0\0\0\x0cunknown name", 16)).str());

  Reply two;
  two.list({"beta", "alpha"});
  bytes = two.bytes();
  ASSERT_EQ(bytes.size(), 93u);
  EXPECT_EQ(bytes, Wire().u32(1).u32(0).u32(2).text("alpha").text("beta").str());

  Reply none;
  none.list({});
  EXPECT_EQ(none.bytes(), Wire().u32(1).u32(0).u32(0).str());
  EXPECT_EQ(none.bytes().size(), 76u);

  Reply empty;
  auto* success = REP(root_t___status___iwrite_setto___success)(empty.arena, empty.root);
  ASSERT_NE(REP(root___status___success_t___type___iwrite_setto___empty)(empty.arena, success), nullptr);
  EXPECT_EQ(empty.bytes(), Wire().u32(1).u32(1).str());

  Reply upgrade;
  ASSERT_NE(REP(root_t___status___iwrite_setto___upgrade)(upgrade.arena, upgrade.root), nullptr);
  EXPECT_EQ(upgrade.bytes(), Wire().u32(2).str());
  EXPECT_EQ(upgrade.bytes().size(), 68u);
}

TEST(ReplyLayout, FailureWithoutReasonGoesOutEmpty) {
  Reply reply;
  REP(root_t___status___iwrite_setto___failure)(reply.arena, reply.root);
  int result;
  EXPECT_EQ(reply.bytes(&result), Wire().u32(0).u32(0).str());
  EXPECT_EQ(result, 0);
}

TEST(ReplyNames, ByteWiseOrderWhateverTheOrderOfAdding) {
  Reply reply;
  Data* data = reply.list({"beta", "alpha", "Alpha", "app2", "Zeta", "app"});
  EXPECT_EQ(names_of(data), (std::vector<std::string>{"Alpha", "Zeta", "alpha", "app", "app2", "beta"}));
  EXPECT_EQ(data->stack_names.count, 6u);
  EXPECT_EQ(reply.bytes(),
            Wire().u32(1).u32(0).u32(6).text("Alpha").text("Zeta").text("alpha").text("app").text("app2").text("beta").str());
  // Bytes above 0x7f sort after every ASCII letter, as unsigned values.
  Reply high;
  EXPECT_EQ(names_of(high.list({"\xc3\xa9t\xc3\xa9", "z"})), (std::vector<std::string>{"z", "\xc3\xa9t\xc3\xa9"}));
}

TEST(ReplyNames, DuplicatesAreRefused) {
  Reply reply;
  Data* data = reply.list({"alpha"});
  message_entry* first = REP(root___status___success___type___data___stack_names_t___find_f)(data, "alpha");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->holder, data);
  EXPECT_EQ(reply.add(data, "alpha"), nullptr);
  EXPECT_EQ(reason_of(reply.root), "duplicate entry in collection: stack_names");
  EXPECT_EQ(data->stack_names.count, 1u);
  EXPECT_EQ(reply.bytes(), Wire().u32(1).u32(0).u32(1).text("alpha").str());
}

TEST(ReplyNames, UnlinkAndFind) {
  Reply reply;
  Data* data = reply.list({"a", "b", "c"});
  REP(root___status___success___type___data_t___stack_names___iwrite_unlink_entry)(reply.arena, data, "zz");
  EXPECT_EQ(data->stack_names.count, 3u);
  REP(root___status___success___type___data_t___stack_names___iwrite_unlink_entry)(reply.arena, data, "b");
  EXPECT_EQ(data->stack_names.count, 2u);
  EXPECT_EQ(REP(root___status___success___type___data___stack_names_t___find_cf)(data, "b"), nullptr);
  EXPECT_NE(REP(root___status___success___type___data___stack_names_t___find_cf)(data, "c"), nullptr);
  EXPECT_EQ(reply.bytes(), Wire().u32(1).u32(0).u32(2).text("a").text("c").str());
  // A removed name can come back.
  EXPECT_NE(reply.add(data, "b"), nullptr);
  REP(root___status___success___type___data___stack_names_t___unlink_f)(data, "a");
  EXPECT_EQ(names_of(data), (std::vector<std::string>{"b", "c"}));
}

TEST(ReplyNames, ReadOnlyWalkAndUncheckedInsert) {
  Reply reply;
  Data* data = reply.list({"m"});
  EXPECT_EQ(REP(root___status___success___type___data___stack_names_t___it_bsize), sizeof(message_cursor));
  // allocate_f leaves the duplicate check to its caller.
  message_entry* twin = REP(root___status___success___type___data___stack_names_t___allocate_f)(reply.arena, data, "m", 1);
  ASSERT_NE(twin, nullptr);
  EXPECT_EQ(data->stack_names.count, 2u);
  message_cursor state;
  int seen = 0;
  const Data* view = data;
  for (const message_entry* entry = REP(root___status___success___type___data___stack_names_t___cit_init)(view->stack_names.tree, &state);
       entry != nullptr; entry = REP(root___status___success___type___data___stack_names_t___cit_next)(&state)) {
    EXPECT_STREQ(entry->text, "m");
    seen++;
  }
  EXPECT_EQ(seen, 2);
  message_cursor empty;
  EXPECT_EQ(REP(root___status___success___type___data___stack_names_t___it_init)(nullptr, &empty), nullptr);
}

TEST(ReplySetters, StatusIsChosenOnce) {
  Reply reply;
  auto* success = REP(root_t___status___iwrite_setto___success)(reply.arena, reply.root);
  EXPECT_EQ(REP(root_t___status___iwrite_setto___failure)(reply.arena, reply.root), nullptr);
  EXPECT_EQ(reason_of(reply.root), "reassigning property: status");
  EXPECT_EQ(REP(root_t___status___iwrite_to___failure)(reply.arena, reply.root), nullptr);
  EXPECT_EQ(REP(root_t___status___iwrite_to___success)(reply.arena, reply.root), success);
  EXPECT_EQ(reply.root->status.tag, 1u);

  // Refusals deep in the tree reach the root through the context references.
  reply.root->failure_reason = nullptr;
  REP(root___status___success_t___type___iwrite_to___empty)(reply.arena, success);
  EXPECT_EQ(REP(root___status___success_t___type___iwrite_to___data)(reply.arena, success), nullptr);
  EXPECT_EQ(reason_of(reply.root), "reassigning property: type");

  Reply failure;
  auto* failed = REP(root_t___status___iwrite_setto___failure)(failure.arena, failure.root);
  REP(root___status___failure_t___reason___iwrite_set)(failure.arena, failed, "one");
  EXPECT_EQ(REP(root___status___failure_t___reason___iwrite_set)(failure.arena, failed, "two"), -1);
  EXPECT_EQ(reason_of(failure.root), "reassigning property: reason");
}

TEST(ReplyWriter, ShortOutputNamesThePrimitive) {
  Reply failure;
  auto* failed = REP(root_t___status___iwrite_setto___failure)(failure.arena, failure.root);
  REP(root___status___failure_t___reason___iwrite_set)(failure.arena, failed, "unknown name");
  Reply list;
  list.list({"alpha", "beta"});
  struct Case {
    Reply* reply;
    int64_t capacity;
    const char* reason;
  };
  for (Case c : {Case{&failure, 10, "output stream error [fingerprint]"}, Case{&failure, 64, "output stream error [uint32]"},
                 Case{&failure, 71, "output stream error [uint32]"}, Case{&failure, 83, "output stream error [text]"},
                 Case{&list, 70, "output stream error [uint32]"}, Case{&list, 74, "output stream error [uint32]"},
                 Case{&list, 78, "output stream error [uint32]"}, Case{&list, 82, "output stream error [test]"},
                 Case{&list, 92, "output stream error [test]"}}) {
    c.reply->root->failure_reason = nullptr;
    int result;
    std::string written = c.reply->bytes(&result, c.capacity);
    EXPECT_EQ(result, -1) << c.capacity;
    EXPECT_EQ(reason_of(c.reply->root), c.reason) << c.capacity;
    EXPECT_EQ(written.size(), static_cast<size_t>(c.capacity));
  }
}

TEST(ReplyParse, RoundTrip) {
  Reply list;
  list.list({"beta", "alpha", "Zeta"});
  std::string bytes = list.bytes();
  TestArena arena;
  Root* root = REP(root_t___allocate_f)(arena);
  ASSERT_EQ(parse_with(&REP(parse_bin_f), arena, root, bytes), 0);
  ASSERT_EQ(root->status.tag, 1u);
  auto* success = static_cast<REP(root___status___success_t)*>(root->status.payload);
  ASSERT_TRUE(success->type.set);
  auto* data = static_cast<Data*>(success->type.payload);
  EXPECT_EQ(names_of(data), (std::vector<std::string>{"Zeta", "alpha", "beta"}));
  EXPECT_EQ(data->stack_names.count, 3u);
  EXPECT_EQ(data->context, success);
  int result;
  EXPECT_EQ(serialize_with(&REP(serialize_bin_f), root, &result), bytes);

  Reply failure;
  auto* failed = REP(root_t___status___iwrite_setto___failure)(failure.arena, failure.root);
  REP(root___status___failure_t___reason___iwrite_set)(failure.arena, failed, "unknown name");
  Root* parsed = REP(root_t___allocate_f)(arena);
  ASSERT_EQ(parse_with(&REP(parse_bin_f), arena, parsed, failure.bytes()), 0);
  EXPECT_STREQ(static_cast<REP(root___status___failure_t)*>(parsed->status.payload)->reason.text, "unknown name");
}

TEST(ReplyParse, NamesFromAPeerAreOrderedAndDeduplicated) {
  TestArena arena;
  Root* root = REP(root_t___allocate_f)(arena);
  std::string bytes = Wire().u32(1).u32(0).u32(3).text("b").text("a").text("b").str();
  ASSERT_EQ(parse_with(&REP(parse_bin_f), arena, root, bytes), 0);
  EXPECT_EQ(reason_of(root), "duplicate entry in collection: stack_names");
  auto* data = static_cast<Data*>(static_cast<REP(root___status___success_t)*>(root->status.payload)->type.payload);
  EXPECT_EQ(names_of(data), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(data->stack_names.count, 2u);

  Root* cut = REP(root_t___allocate_f)(arena);
  EXPECT_EQ(parse_with(&REP(parse_bin_f), arena, cut, Wire().u32(1).u32(0).u32(2).text("a").str()), -1);
  EXPECT_EQ(reason_of(cut), "insufficient bytes to read uint32");
  Root* huge = REP(root_t___allocate_f)(arena);
  EXPECT_EQ(parse_with(&REP(parse_bin_f), arena, huge, Wire().u32(1).u32(0).u32(1).u32(1u << 31).str()), -1);
  EXPECT_EQ(reason_of(huge), "insufficient data to read text");
}

}  // namespace

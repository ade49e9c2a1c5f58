// The lists and descriptions, with a policy and without one.
#include "tools/schema_tools.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

const std::string kNoArguments = tool_error("this tool accepts no arguments");
const std::string kBadTable = tool_error("table is invalid or not allowed by MCP policy");

struct ListRow {
  const char* tool;
  const char* objects;
  const char* statement;
};

constexpr ListRow kLists[] = {{"kova_list_databases", "database-catalog", "list database;"},
                              {"kova_list_tables", "table-catalog", "list table;"}};

FakeResult many_rows() {
  FakeResult result = {.status = "ok", .columns = {"N"}};
  for (int i = 0; i < 300; ++i) result.rows.push_back({"x"});
  return result;
}

TEST_F(ToolCalls, ListsAcceptNoArguments) {
  for (const bool with_policy : {true, false}) {
    if (!with_policy) use_no_policy();
    for (const ListRow& list : kLists) {
      for (const char* arguments : {"null", "[]", "5", "\"x\"", "true", R"({"x":1})",
                                    R"({"_meta":{},"table":"ORDERS"})", R"({"":1})"}) {
        EXPECT_EQ(call(list.tool, arguments), kNoArguments) << list.tool << arguments;
        expect_audit("allow", "");
      }
      for (const char* arguments : {"{}", R"({"_meta":{"x":1}})", R"({"_meta":null})"}) {
        EXPECT_EQ(call(list.tool, arguments), call(list.tool)) << list.tool << arguments;
        expect_audit("allow", list.objects);
      }
    }
  }
}

TEST_F(ToolCalls, ListsComeFromThePolicy) {
  EXPECT_EQ(call("kova_list_databases"),
            tool_success(R"({"status":"policy-filtered","columns":["NAME"],"rows":[["SHOP"]],)"
                         R"("rowCount":1,"truncated":false})"));
  EXPECT_EQ(call("kova_list_tables"),
            tool_success(R"({"status":"policy-filtered","columns":["NAME"],)"
                         R"("rows":[["ORDERS"],["items"]],"rowCount":2,"truncated":false})"));
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_FALSE(session.attempted);
}

TEST_F(ToolCalls, AListMayBeEmpty) {
  policy->allowed_tables.count = 0;
  EXPECT_EQ(call("kova_list_tables"),
            tool_success(R"({"status":"policy-filtered","columns":["NAME"],"rows":[],)"
                         R"("rowCount":0,"truncated":false})"));
}

TEST_F(ToolCalls, AListHolds64NamesOf63Bytes) {
  NameList& tables = policy->allowed_tables;
  std::string rows;
  for (tables.count = 0; tables.count < 64; ++tables.count) {
    const std::string name = std::string(61, 'T') + std::to_string(10 + tables.count);
    TextOut(tables.names[tables.count]).copy_cut(name);
    rows += (tables.count == 0 ? "[\"" : ",[\"") + name + "\"]";
  }
  const std::string json = R"({"status":"policy-filtered","columns":["NAME"],"rows":[)" + rows +
                           R"(],"rowCount":64,"truncated":false})";
  EXPECT_EQ(call("kova_list_tables"), tool_success(json));
  EXPECT_NE(audit_log().find("\"rows\":64,\"bytes\":" + std::to_string(json.size()) + ","),
            std::string::npos);
}

// Names without their terminators, as no policy file can give them: each one runs on into the
// next, so that three rows fill the room. The first one is as long as it takes.
TEST_F(ToolCalls, AListKeeps64BytesOfItsRoomFree) {
  constexpr std::size_t kRoom = 8192;
  constexpr std::size_t kFree = 64;
  const std::string head = R"({"status":"policy-filtered","columns":["NAME"],"rows":[)";
  NameList& tables = policy->allowed_tables;
  char* const names = &tables.names[0][0];
  std::memset(names, 'T', sizeof tables.names);
  names[sizeof tables.names - 1] = '\0';
  tables.count = 3;
  const std::string second(names + kSafeNameCapacity);
  const std::string third(names + 2 * kSafeNameCapacity);
  const std::string rest = "\"],[\"" + second + "\"],[\"" + third + "\"]";
  const std::size_t longest = kRoom - kFree - 1 - head.size() - 2 - rest.size();
  ASSERT_LT(longest + 1, kSafeNameCapacity);
  names[longest] = '\0';
  const std::string whole = head + "[\"" + std::string(longest, 'T') + rest;
  EXPECT_EQ(whole.size(), kRoom - kFree - 1);
  EXPECT_EQ(call("kova_list_tables"), tool_success(whole + R"(],"rowCount":3,"truncated":false})"));
  names[longest] = 'T';
  names[longest + 1] = '\0';
  EXPECT_EQ(call("kova_list_tables"), tool_error("policy catalog limit"));
  expect_audit("allow", "table-catalog");
  // A row that does not fit at all.
  std::memset(names, 'T', kSafeNameCapacity);
  EXPECT_EQ(call("kova_list_tables"), tool_error("policy catalog limit"));
}

TEST_F(ToolCalls, AListWithoutMemoryFails) {
  for (const ListRow& list : kLists) {
    EXPECT_EQ(handle("{\"id\":7,\"params\":{\"name\":\"" + std::string(list.tool) + "\"}}", 1),
              tool_error("policy catalog memory limit"));
    expect_audit("allow", list.objects);
  }
}

TEST_F(ToolCalls, WithoutAPolicyListsComeFromTheEngine) {
  use_no_policy();
  for (const ListRow& list : kLists) {
    library.answer(list.statement, {.status = "ok", .columns = {"N"}, .rows = {{"a"}, {"b"}}});
    EXPECT_EQ(call(list.tool),
              tool_success(R"({"status":"ok","columns":["N"],"rows":[["a"],["b"]],"rowCount":2,)"
                           R"("truncated":false})"));
    expect_audit("allow", list.objects);
    EXPECT_EQ(library.statements(), (Calls{list.statement}));
    library.forget_calls();
    library.answer(list.statement, many_rows());
    EXPECT_NE(call(list.tool).find("\"rowCount\":256,\"truncated\":true"), std::string::npos);
    library.forget_calls();
  }
}

TEST_F(ToolCalls, EnginesListsFailWithTheEnginesMessage) {
  use_no_policy();
  library.answer("list table;", {.code = 0, .status = "catalog \"gone\""});
  EXPECT_EQ(call("kova_list_tables"), tool_error("catalog \"gone\""));
  expect_audit("allow", "table-catalog");
  disconnect(session);
  library.missing = true;
  EXPECT_EQ(call("kova_list_databases"),
            tool_error("authenticated Vantreo profile is unavailable"));
}

// The frame asks before it; called alone, the tool asks itself.
TEST_F(ToolCalls, AListAloneHeedsDisabledReads) {
  policy->reads_enabled = false;
  JsonToken tokens[8];
  JsonDoc doc;
  ASSERT_TRUE(json_parse(R"({"id":7,"x":[1]})", tokens, 8, doc));
  for (const auto tool : {list_databases_tool, list_tables_tool}) {
    audit = {};
    ToolContext context{*policy, audit, session};
    ToolAnswer answer;
    EXPECT_FALSE(tool({.doc = doc, .arguments = -1}, context, answer));
    EXPECT_STREQ(answer.message, "read tools are disabled by policy");
    expect_audit("deny", "");
    // Arguments come first.
    audit = {};
    EXPECT_FALSE(tool({.doc = doc, .arguments = 4}, context, answer));
    EXPECT_STREQ(answer.message, "this tool accepts no arguments");
    expect_audit("", "");
  }
}

TEST_F(ToolCalls, ADescriptionNeedsAnAllowedTable) {
  policy->denied_columns.count = 0;
  for (const std::string& arguments :
       {std::string("null"), std::string("[]"), std::string("{}"), std::string("\"ORDERS\""),
        std::string(R"({"table":"ORDERS","x":1})"), std::string(R"({"table":5})"),
        std::string(R"({"table":null})"), std::string(R"({"table":""})"),
        std::string(R"({"table":"OTHER"})"), std::string(R"({"table":"ORDERS;"})"),
        std::string(R"({"table":"ORDERS "})"), std::string(R"({"table":"a-b"})"),
        std::string(R"({"Table":"ORDERS"})"), std::string(R"({"t\u0061ble":"ORDERS"})"),
        "{\"table\":\"" + std::string(64, 'T') + "\"}",
        "{\"table\":\"" + std::string(40000, 'T') + "\"}"}) {
    EXPECT_EQ(call("kova_describe_table", arguments), kBadTable) << arguments.substr(0, 60);
    expect_audit("deny", "");
  }
  EXPECT_EQ(call("kova_describe_table"), kBadTable);
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(ToolCalls, ADescriptionIsTheEngines) {
  policy->denied_columns.count = 0;
  library.answer("describe orders;", {.status = "ok", .columns = {"F"}, .rows = {{"ID"}}});
  EXPECT_EQ(call("kova_describe_table", R"({"_meta":1,"table":"orders"})"),
            tool_success(R"({"status":"ok","columns":["F"],"rows":[["ID"]],"rowCount":1,)"
                         R"("truncated":false})"));
  expect_audit("allow", "orders");
  library.answer("describe ORDERS;", many_rows());
  EXPECT_NE(call("kova_describe_table", R"({"table":"ORDERS"})")
                .find("\"rowCount\":256,\"truncated\":true"),
            std::string::npos);
  library.answer("describe items;", {.code = -1, .status = ""});
  EXPECT_EQ(call("kova_describe_table", R"({"table":"items"})"),
            tool_error("database statement failed"));
  expect_audit("allow", "items");
  EXPECT_EQ(library.statements(),
            (Calls{"describe orders;", "describe ORDERS;", "describe items;"}));
}

TEST_F(ToolCalls, NoDescriptionsWithDeniedColumns) {
  for (const char* table : {"ORDERS", "items"}) {
    EXPECT_EQ(call("kova_describe_table", "{\"table\":\"" + std::string(table) + "\"}"),
              tool_error("schema description is disabled when the policy denies columns"));
    expect_audit("deny", "");
  }
  // The table comes first.
  EXPECT_EQ(call("kova_describe_table", R"({"table":"OTHER"})"), kBadTable);
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(ToolCalls, WithoutAPolicyEverySafeTableIsDescribed) {
  use_no_policy();
  const std::string longest(63, 'T');
  EXPECT_NE(
      call("kova_describe_table", "{\"table\":\"" + longest + "\"}").find("\"isError\":false"),
      std::string::npos);
  expect_audit("allow", longest);
  EXPECT_EQ(library.statements(), (Calls{"describe " + longest + ";"}));
  EXPECT_EQ(call("kova_describe_table", R"({"table":"a.b"})"), kBadTable);
}

}  // namespace
}  // namespace kova::testing

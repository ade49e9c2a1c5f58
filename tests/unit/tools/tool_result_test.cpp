// The envelopes of tool results, and what they leave for the audit log.
#include "tools/tool_result.h"

#include <gtest/gtest.h>

#include <string>

#include "tools/tool_table.h"
#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

class ToolResult : public ToolCalls {
 protected:
  ToolResult() {
    EXPECT_TRUE(json_parse(R"({"id":"a\nb"})", tokens_, 4, doc_));
    TextOut(audit.tool).copy_cut("tool");
  }

  JsonToken tokens_[4];
  JsonDoc doc_;
  ToolCall tool_call{.doc = doc_, .id = 2, .arguments = -1};
  ToolContext context{*policy, audit, session};
};

TEST_F(ToolResult, AFailureCarriesItsMessage) {
  CapturedOutput output;
  write_tool_error(tool_call, context, "not \"this\"\n");
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":\"a\\nb\",\"result\":{\"content\":[{\"type\":\"text\","
            "\"text\":\"not \\\"this\\\"\\n\"}],\"isError\":true}}\n");
  write_tool_error(tool_call, context, "");
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":\"a\\nb\",\"result\":{\"content\":[{\"type\":\"text\","
            "\"text\":\"\"}],\"isError\":true}}\n");
  EXPECT_EQ(audit_records(), 2);
}

TEST_F(ToolResult, ASuccessCarriesItsJsonTwice) {
  CapturedOutput output;
  write_tool_success(tool_call, context, R"({"a":"\\\b\u0001é"})", 5);
  EXPECT_EQ(output.take(),
            "{\"jsonrpc\":\"2.0\",\"id\":\"a\\nb\",\"result\":{\"content\":[{\"type\":\"text\","
            "\"text\":\"{\\\"a\\\":\\\"\\\\\\\\\\\\b\\\\u0001\xC3\xA9\\\"}\"}],"
            "\"structuredContent\":{\"a\":\"\\\\\\b\\u0001\xC3\xA9\"},\"isError\":false}}\n");
  EXPECT_NE(audit_log().find("\"rows\":5,\"bytes\":20,\"status\":\"ok\""), std::string::npos)
      << audit_log();
}

TEST_F(ToolResult, ARefusalSetsTheDecision) {
  set_decision(context, kAllow);
  CapturedOutput output;
  refuse_tool(tool_call, context, kKillSwitch, "off");
  EXPECT_EQ(output.take(), tool_error("off", "\"a\\nb\""));
  EXPECT_STREQ(audit.policy_decision, "kill_switch");
  EXPECT_NE(audit_log().find("\"policy_decision\":\"kill_switch\""), std::string::npos);
}

TEST_F(ToolResult, ObjectsAreCutAt128Characters) {
  set_objects(context, std::string(128, 'o'));
  EXPECT_EQ(audit.objects, std::string(128, 'o'));
  set_objects(context, std::string(129, 'p'));
  EXPECT_EQ(audit.objects, std::string(128, 'p'));
  set_objects(context, "");
  EXPECT_STREQ(audit.objects, "");
}

TEST_F(ToolResult, AFailingAuditChangesNoReply) {
  audit_variable.set(folder.path());
  CapturedOutput output;
  write_tool_error(tool_call, context, "m");
  EXPECT_EQ(output.take(), tool_error("m", "\"a\\nb\""));
}

TEST(ToolTable, HasNineToolsInTheOrderOfTheList) {
  constexpr const char* kNames[] = {
      "kova_list_databases", "kova_list_tables",   "kova_describe_table",
      "kova_query",          "kova_vector_search", "kova_text_search",
      "kova_hybrid_search",  "kova_ai_status",     "kova_execute",
  };
  ASSERT_EQ(tool_table().size(), std::size(kNames));
  for (std::size_t i = 0; i < std::size(kNames); ++i) {
    EXPECT_EQ(tool_table()[i].name, kNames[i]);
    EXPECT_EQ(find_tool(kNames[i]), &tool_table()[i]);
  }
  for (const char* name : {"", "kova_", "KOVA_QUERY", "kova_query "})
    EXPECT_EQ(find_tool(name), nullptr) << name;
}

TEST(ToolTable, HasSchemasOfStrictObjects) {
  for (const Tool& tool : tool_table()) {
    JsonToken tokens[256];
    JsonDoc doc;
    ASSERT_TRUE(json_parse(tool.input_schema, tokens, 256, doc)) << tool.name;
    EXPECT_EQ(doc.raw(json_find(doc, 0, "type")), "object");
    EXPECT_EQ(doc.raw(json_find(doc, 0, "additionalProperties")), "false");
    EXPECT_FALSE(tool.description.empty());
  }
}

}  // namespace
}  // namespace kova::testing

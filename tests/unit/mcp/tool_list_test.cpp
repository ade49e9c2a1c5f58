#include "mcp/tool_list.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "policy/predicates.h"
#include "support/captured_output.h"
#include "support/environment.h"
#include "unit/json/parsed_text.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::ParsedText;
using testing::ScopedEnvironment;

// The catalogue's texts, as clients see them.
constexpr std::string_view kTail =
    R"(,"annotations":{"readOnlyHint":true,"destructiveHint":false,"idempotentHint":true,)"
    R"("openWorldHint":false},"execution":{"taskSupport":"forbidden"}})";

struct Entry {
  std::string_view name;
  bool provider;
  std::string_view description;
  std::string_view schema;
};

constexpr Entry kReadTools[] = {
    {"kova_list_databases", false, "List policy-allowed Vantreo databases.",
     R"({"type":"object","additionalProperties":false})"},
    {"kova_list_tables", false, "List policy-allowed tables and views.",
     R"({"type":"object","additionalProperties":false})"},
    {"kova_describe_table", false, "Describe one allowed table without returning row data.",
     R"({"type":"object","properties":{"table":{"type":"string","maxLength":63}},"required":["table"],"additionalProperties":false})"},
    {"kova_query", false, "Execute exactly one parsed read-only SELECT with bounded output.",
     R"({"type":"object","properties":{"sql":{"type":"string","maxLength":32768},"max_rows":{"type":"integer","minimum":1,"maximum":256}},"required":["sql"],"additionalProperties":false})"},
    {"kova_vector_search", false, "Search an AI collection with a numeric vector.",
     R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},"vector":{"type":"array","minItems":1,"maxItems":4096,"items":{"type":"number"}},"top":{"type":"integer","minimum":1,"maximum":256}},"required":["collection","vector","top"],"additionalProperties":false})"},
    {"kova_text_search", true, "Embed bounded text using the collection provider and search.",
     R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},"text":{"type":"string","maxLength":8192},"top":{"type":"integer","minimum":1,"maximum":256}},"required":["collection","text","top"],"additionalProperties":false})"},
    {"kova_hybrid_search", true,
     "Search an AI collection and join ranked hits to authorized source columns.",
     R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},"text":{"type":"string","maxLength":8192},"top":{"type":"integer","minimum":1,"maximum":256},"source_table":{"type":"string","maxLength":63},"key_field":{"type":"string","maxLength":63},"columns":{"type":"array","minItems":1,"maxItems":16,"items":{"type":"string","maxLength":63}}},"required":["collection","text","top","source_table","key_field","columns"],"additionalProperties":false})"},
    {"kova_ai_status", false,
     "Show bounded AI collection, optional provider, and durable job health without secrets.",
     R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},"provider":{"type":"string","maxLength":63}},"required":["collection"],"additionalProperties":false})"},
};

constexpr std::string_view kWriteTool =
    R"({"name":"kova_execute","description":"Execute one policy-approved INSERT, UPDATE, or DELETE.","inputSchema":{"type":"object","properties":{"sql":{"type":"string","maxLength":32768},"approval_token":{"type":"string","maxLength":255}},"required":["sql"],"additionalProperties":false},"annotations":{"readOnlyHint":false,"destructiveHint":true,"idempotentHint":false,"openWorldHint":false},"execution":{"taskSupport":"forbidden"}})";

std::string wanted(std::string_view id, bool read, bool provider, bool write) {
  std::string tools;
  const auto add = [&tools](std::string_view entry) {
    if (!tools.empty()) tools += ",";
    tools += entry;
  };
  for (const Entry& entry : kReadTools) {
    if (!read || (entry.provider && !provider)) continue;
    add("{\"name\":\"" + std::string(entry.name) + "\",\"description\":\"" +
        std::string(entry.description) + "\",\"inputSchema\":" + std::string(entry.schema) +
        std::string(kTail));
  }
  if (write) add(kWriteTool);
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) + ",\"result\":{\"tools\":[" + tools +
         "]}}\n";
}

McpPolicy unconfigured() {
  McpPolicy policy{};
  policy.valid = true;
  policy.reads_enabled = true;
  policy.provider_reads_enabled = true;
  policy.approval_ttl_seconds = 300;
  return policy;
}

// A policy file that enables everything.
McpPolicy configured() {
  McpPolicy policy = unconfigured();
  policy.configured = true;
  policy.writes_enabled = true;
  policy.write_type_mask = kInsert;
  std::strcpy(policy.write_tables.names[0], "NOTES");
  policy.write_tables.count = 1;
  return policy;
}

class ToolCatalogue : public ::testing::Test {
 protected:
  std::string list(const McpPolicy& policy) {
    const ParsedText parsed("7");
    CapturedOutput output;
    write_tool_list({&parsed.doc(), 0}, policy);
    return output.take();
  }

  ScopedEnvironment disable_providers_{kDisableProviders};
  ScopedEnvironment disable_writes_{kDisableWrites};
};

TEST_F(ToolCatalogue, WithoutAPolicyFile) {
  EXPECT_EQ(list(unconfigured()), wanted("7", true, true, false));
}

TEST_F(ToolCatalogue, WithoutAPolicyFileNothingMakesWritesAppear) {
  McpPolicy policy = configured();
  policy.configured = false;
  EXPECT_EQ(list(policy), wanted("7", true, true, false));
}

TEST_F(ToolCatalogue, WithoutAPolicyFileTheReadSwitchDoesNotMatter) {
  McpPolicy policy = unconfigured();
  policy.reads_enabled = false;
  EXPECT_EQ(list(policy), wanted("7", true, true, false));
}

TEST_F(ToolCatalogue, EverythingEnabled) {
  EXPECT_EQ(list(configured()), wanted("7", true, true, true));
}

TEST_F(ToolCatalogue, ReadsOffLeaveTheWriteToolAlone) {
  McpPolicy policy = configured();
  policy.reads_enabled = false;
  EXPECT_EQ(list(policy), wanted("7", false, false, true));
}

TEST_F(ToolCatalogue, NothingEnabled) {
  McpPolicy policy = configured();
  policy.reads_enabled = false;
  policy.writes_enabled = false;
  EXPECT_EQ(list(policy), "{\"jsonrpc\":\"2.0\",\"id\":7,\"result\":{\"tools\":[]}}\n");
}

TEST_F(ToolCatalogue, AnInvalidPolicyListsNothing) {
  McpPolicy policy = configured();
  policy.valid = false;
  EXPECT_EQ(list(policy), wanted("7", false, false, false));
  policy.configured = false;
  EXPECT_EQ(list(policy), wanted("7", false, false, false));
}

TEST_F(ToolCatalogue, ProviderReadsOff) {
  McpPolicy policy = configured();
  policy.provider_reads_enabled = false;
  EXPECT_EQ(list(policy), wanted("7", true, false, true));
}

TEST_F(ToolCatalogue, EachPartOfTheWritePermission) {
  McpPolicy no_flag = configured();
  no_flag.writes_enabled = false;
  McpPolicy no_type = configured();
  no_type.write_type_mask = 0;
  McpPolicy no_table = configured();
  no_table.write_tables.count = 0;
  for (const McpPolicy* policy : {&no_flag, &no_type, &no_table}) {
    EXPECT_EQ(list(*policy), wanted("7", true, true, false));
  }
}

TEST_F(ToolCatalogue, KillSwitchesAreReadAtEachCall) {
  const McpPolicy policy = configured();
  disable_providers_.set("1");
  EXPECT_EQ(list(policy), wanted("7", true, false, true));
  disable_writes_.set("on");
  EXPECT_EQ(list(policy), wanted("7", true, false, false));
  disable_providers_.set("0");
  EXPECT_EQ(list(policy), wanted("7", true, true, false));
  disable_writes_.unset();
  EXPECT_EQ(list(policy), wanted("7", true, true, true));
}

TEST_F(ToolCatalogue, TheProviderKillSwitchWithoutAPolicyFile) {
  disable_providers_.set("yes");
  EXPECT_EQ(list(unconfigured()), wanted("7", true, false, false));
}

TEST_F(ToolCatalogue, EchoesTheId) {
  const McpPolicy policy = unconfigured();
  const ParsedText parsed(R"("list\n\u0041")");
  CapturedOutput output;
  write_tool_list({&parsed.doc(), 0}, policy);
  EXPECT_EQ(output.take(), wanted("\"list\\nA\"", true, true, false));
  write_tool_list({}, policy);
  EXPECT_EQ(output.take(), wanted("null", true, true, false));
}

TEST_F(ToolCatalogue, TheReplyIsOneJsonLine) {
  const std::string line = list(configured());
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  const ParsedText parsed(line, kMessageTokenCapacity);
  ASSERT_TRUE(parsed.ok());
  const JsonDoc& doc = parsed.doc();
  const int tools = json_find(doc, json_find(doc, 0, "result"), "tools");
  ASSERT_GE(tools, 0);
  EXPECT_EQ(doc[tools].size, 9);
}

}  // namespace
}  // namespace kova

// The frame of tools/call: its params, the audit context, and the checks in their order.
#include "tools/tool_call.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/clock.h"
#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

const std::string kBadParams =
    params_error("tools/call params are invalid or contain unknown fields");
const std::string kBadName = params_error("tools/call requires a valid tool name");
const std::string kReadsOff = tool_error("read tools are disabled by policy");
const std::string kProvidersOff =
    tool_error("provider-backed MCP reads are disabled by policy or kill switch");
const std::string kBadCollection = tool_error("collection is invalid or not allowed by MCP policy");
const std::string kStatusOff = tool_error("provider status is disabled by policy or kill switch");
const std::string kBadSource = tool_error("hybrid source table or key is denied by MCP policy");
const std::string kBadColumns = tool_error("hybrid columns are invalid");
const std::string kDeniedColumn = tool_error("hybrid column is denied by MCP policy");

// What the tools themselves say of bad arguments, once every check before them is passed.
const std::string kBadVector = tool_error("invalid collection, top limit, or unknown argument");
const std::string kBadText = tool_error("invalid collection, text, top limit, or unknown argument");
const std::string kBadHybrid =
    tool_error("invalid hybrid collection, source mapping, text, top, or unknown argument");
const std::string kBadStatus =
    tool_error("collection must be a safe Vantreo identifier and unknown fields are not allowed");
const std::string kBadProvider = tool_error("provider must be a safe Vantreo identifier");
const std::string kBadWrite =
    tool_error("kova_execute requires bounded SQL and rejects unknown arguments");

struct OwnRefusal {
  const char* tool;
  const std::string& reply;
};
const OwnRefusal kPlainCollectionTools[] = {
    {"kova_vector_search", kBadVector},
    {"kova_text_search", kBadText},
    {"kova_ai_status", kBadStatus},
};

constexpr const char* kAllTools[] = {
    "kova_list_databases", "kova_list_tables",   "kova_describe_table",
    "kova_query",          "kova_vector_search", "kova_text_search",
    "kova_hybrid_search",  "kova_ai_status",     "kova_execute",
};
constexpr const char* kCollectionTools[] = {"kova_vector_search", "kova_text_search",
                                            "kova_hybrid_search", "kova_ai_status"};
// Hybrid arguments that pass every check.
constexpr const char kHybrid[] =
    R"({"collection":"DOCS","source_table":"ORDERS","key_field":"ID","columns":["A","B"]})";

TEST_F(ToolCalls, ParamsAreAnObjectOfKnownMembers) {
  for (const char* params :
       {"[]", "[\"name\"]", "\"kova_query\"", "5", "null", "true", R"({"name":"x","extra":1})",
        R"({"extra":1,"name":"x"})", R"({"name":"x","Arguments":{}})", R"({"":1})",
        R"({"name":"x","meta":1})"}) {
    std::memset(static_cast<void*>(&audit), 'z', sizeof audit);
    EXPECT_EQ(handle_params(params), kBadParams) << params;
    EXPECT_EQ(audit.tool[0], 'z');
  }
  EXPECT_EQ(handle(R"({"id":7,"method":"tools/call"})"), kBadParams);
  EXPECT_EQ(audit_records(), 0);
}

TEST_F(ToolCalls, TheNameIsATextOfUpTo128Bytes) {
  const std::string longest(128, 'n');
  for (const std::string& params :
       {std::string("{}"), std::string(R"({"arguments":{}})"), std::string(R"({"name":5})"),
        std::string(R"({"name":null})"), std::string(R"({"name":["kova_query"]})"),
        std::string(R"({"name":{}})"), std::string(R"({"name":"\ud800"})"),
        "{\"name\":\"" + longest + "n\"}",
        // A member of its name, and not found by it.
        std::string(R"({"n\u0061me":"kova_query"})")}) {
    std::memset(static_cast<void*>(&audit), 'z', sizeof audit);
    EXPECT_EQ(handle_params(params), kBadName) << params;
    EXPECT_EQ(audit.tool[0], 'z');
  }
  EXPECT_EQ(handle_params("{\"name\":\"" + longest + "\"}"), kUnknownTool);
  EXPECT_EQ(audit.tool, longest);
  EXPECT_EQ(audit_records(), 0);
}

TEST_F(ToolCalls, MetaIsToleratedInAnyForm) {
  for (const char* meta : {"null", "5", "{\"progressToken\":1}", "[]", "\"x\""}) {
    EXPECT_EQ(handle_params("{\"_meta\":" + std::string(meta) + ",\"name\":\"x\"}"), kUnknownTool);
  }
}

TEST_F(ToolCalls, AnUnknownNameIsUnknown) {
  for (const char* name : {"", "kova_", "KOVA_QUERY", "Kova_query", "kova_query ", " kova_query",
                           "kova_queryx", "tools/call", "kova_list_database"})
    EXPECT_EQ(call(name, "{}"), kUnknownTool) << name;
  EXPECT_EQ(audit_records(), 0);
}

TEST_F(ToolCalls, ANameEndsAtAnEscapedNul) {
  EXPECT_EQ(handle_params(R"({"name":"kova_list_databases\u0000x"})"),
            tool_success(R"({"status":"policy-filtered","columns":["NAME"],)"
                         R"("rows":[["SHOP"]],"rowCount":1,"truncated":false})"));
  EXPECT_STREQ(audit.tool, "kova_list_databases");
}

TEST_F(ToolCalls, OpenTheAuditContext) {
  std::memset(static_cast<void*>(&audit), 'z', sizeof audit);
  const std::uint64_t before = tick_ms();
  EXPECT_EQ(call("unknown"), kUnknownTool);
  EXPECT_STREQ(audit.tool, "unknown");
  EXPECT_STREQ(audit.correlation_id, "7");
  expect_audit("allow", "");
  EXPECT_GE(audit.started_ms, before);
  EXPECT_LE(audit.started_ms, tick_ms());
}

TEST_F(ToolCalls, TheCorrelationIdIsTheRequestsId) {
  const std::string letters(95, 'i');
  const std::string digits(95, '9');
  struct Row {
    std::string id;
    std::string correlation_id;
  };
  const Row rows[] = {
      {"7", "7"},
      {"\"7\"", "7"},
      {"-0.5e3", "-0.5e3"},
      {"null", "null"},
      {"\"\"", ""},
      {"\"\\u0041\\n\"", "A\n"},
      {"\"" + letters + "\"", letters},
      {"\"" + letters + "i\"", "invalid"},
      {digits, digits},
      {digits + "9", "invalid"},
      {"\"\\ud800\"", "invalid"},
  };
  for (const Row& row : rows) {
    handle_params("{\"name\":\"unknown\"}", row.id);
    EXPECT_EQ(audit.correlation_id, row.correlation_id) << row.id;
  }
  // 96 bytes of source text, which decode to fewer.
  std::string escapes;
  for (int i = 0; i < 16; ++i) escapes += "\\u0061";
  handle_params("{\"name\":\"unknown\"}", "\"" + escapes + "\"");
  EXPECT_EQ(audit.correlation_id, std::string(16, 'a'));
}

TEST_F(ToolCalls, AnInvalidPolicyAnswersEveryName) {
  policy->valid = false;
  policy->reads_enabled = false;
  TextOut(policy->error).copy_cut("MCP policy \"file\" is bad");
  for (const char* name : kAllTools) {
    EXPECT_EQ(call(name, "null"), tool_error("MCP policy \"file\" is bad")) << name;
    expect_audit("deny", "");
  }
  EXPECT_EQ(call("unknown"), tool_error("MCP policy \"file\" is bad"));
  EXPECT_EQ(call(""), tool_error("MCP policy \"file\" is bad"));
  policy->error[0] = '\0';
  EXPECT_EQ(call("kova_query"), tool_error("MCP policy is invalid"));
  expect_audit("deny", "");
  policy->configured = false;
  EXPECT_EQ(call("unknown"), tool_error("MCP policy is invalid"));
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(ToolCalls, DisabledReadsLeaveTheWriteToolAlone) {
  policy->reads_enabled = false;
  for (const char* name : kAllTools) {
    if (name == std::string("kova_execute")) continue;
    EXPECT_EQ(call(name, "null"), kReadsOff) << name;
    expect_audit("deny", "");
  }
  EXPECT_EQ(call("unknown"), kReadsOff);
  expect_audit("deny", "");
  EXPECT_EQ(call(""), kReadsOff);
  EXPECT_EQ(call("kova_execute", "{}"), kUnknownTool);
  policy->writes_enabled = true;
  EXPECT_EQ(call("kova_execute", "{}"), kBadWrite);
  expect_audit("allow", "");
}

// The switch is the policy's: without a file it does not count.
TEST_F(ToolCalls, DisabledReadsNeedAPolicyFile) {
  use_no_policy();
  policy->reads_enabled = false;
  EXPECT_EQ(call("unknown"), kUnknownTool);
}

TEST_F(ToolCalls, ProviderToolsNeedProviderReads) {
  const auto expect_gate = [this] {
    for (const char* name : {"kova_text_search", "kova_hybrid_search"}) {
      EXPECT_EQ(call(name, "null"), kProvidersOff) << name;
      expect_audit("kill_switch", "");
    }
    EXPECT_EQ(call("kova_vector_search", R"({"collection":"DOCS"})"), kBadVector);
    EXPECT_EQ(call("kova_ai_status", R"({"collection":"DOCS","x":1})"), kBadStatus);
    expect_audit("allow", "");
  };
  policy->provider_reads_enabled = false;
  expect_gate();
  policy->provider_reads_enabled = true;
  providers_switch.set("yes");
  expect_gate();
  use_no_policy();
  expect_gate();
}

TEST_F(ToolCalls, CollectionsMustBeAllowed) {
  for (const char* name : kCollectionTools) {
    for (const std::string& arguments :
         {std::string("null"), std::string("[]"), std::string("\"DOCS\""), std::string("{}"),
          std::string(R"({"collection":5})"), std::string(R"({"collection":null})"),
          std::string(R"({"collection":["DOCS"]})"), std::string(R"({"collection":""})"),
          std::string(R"({"collection":"OTHER"})"), std::string(R"({"collection":"DOCS "})"),
          std::string(R"({"collection":"a-b"})"), std::string(R"({"collection":"\ud800"})"),
          std::string(R"({"Collection":"DOCS"})"), std::string(R"({"c\u006fllection":"DOCS"})"),
          "{\"collection\":\"" + std::string(64, 'c') + "\"}"}) {
      SCOPED_TRACE(name + arguments);
      EXPECT_EQ(call(name, arguments), kBadCollection);
      expect_audit("deny", "");
    }
    EXPECT_EQ(call(name), kBadCollection);
    expect_audit("deny", "");
  }
  for (const OwnRefusal& own : kPlainCollectionTools) {
    // The tool's own members are not the policy check's to judge.
    EXPECT_EQ(call(own.tool, R"({"collection":"docs","other":1})"), own.reply);
    EXPECT_EQ(call(own.tool, R"({"collection":"D\u004fCS","other":1})"), own.reply);
    expect_audit("allow", "");
  }
}

TEST_F(ToolCalls, WithoutAPolicyEverySafeCollectionIsAllowed) {
  use_no_policy();
  for (const OwnRefusal& own : kPlainCollectionTools) {
    EXPECT_EQ(call(own.tool, "{\"collection\":\"" + std::string(63, 'c') + "\",\"x\":1}"),
              own.reply);
    EXPECT_EQ(call(own.tool, "{\"collection\":\"" + std::string(64, 'c') + "\"}"), kBadCollection);
    EXPECT_EQ(call(own.tool, R"({"collection":"a b"})"), kBadCollection);
  }
}

TEST_F(ToolCalls, AProvidersStatusNeedsProviderReads) {
  constexpr const char* kArguments[] = {R"({"collection":"DOCS","provider":"P"})",
                                        R"({"collection":"DOCS","provider":null})",
                                        R"({"provider":[],"collection":"DOCS"})"};
  EXPECT_NE(call("kova_ai_status", kArguments[0]).find("\"isError\":false"), std::string::npos);
  expect_audit("allow", "DOCS,P");
  for (const char* arguments : {kArguments[1], kArguments[2]}) {
    EXPECT_EQ(call("kova_ai_status", arguments), kBadProvider) << arguments;
    expect_audit("allow", "");
  }
  providers_switch.set("1");
  for (const char* arguments : kArguments) {
    EXPECT_EQ(call("kova_ai_status", arguments), kStatusOff) << arguments;
    expect_audit("kill_switch", "");
  }
  EXPECT_EQ(call("kova_ai_status", R"({"collection":"DOCS","x":1})"), kBadStatus);
  EXPECT_EQ(call("kova_vector_search", kArguments[0]), kBadVector);
  // The collection comes first.
  EXPECT_EQ(call("kova_ai_status", R"({"collection":"OTHER","provider":"P"})"), kBadCollection);
  expect_audit("deny", "");
  providers_switch.unset();
  policy->provider_reads_enabled = false;
  EXPECT_EQ(call("kova_ai_status", kArguments[0]), kStatusOff);
}

TEST_F(ToolCalls, AHybridSearchReadsAllowedTablesByAllowedKeys) {
  const std::string long_name(64, 'n');
  const auto source = [this](const std::string& table, const std::string& key) {
    return call("kova_hybrid_search", "{\"collection\":\"DOCS\",\"source_table\":" + table +
                                          ",\"key_field\":" + key + ",\"columns\":[]}");
  };
  for (const std::string& table :
       {std::string("\"OTHER\""), std::string("\"\""), std::string("5"), std::string("null"),
        std::string("[\"ORDERS\"]"), std::string("\"ORDERS;\""), std::string("\"LOG\""),
        "\"" + long_name + "\""}) {
    EXPECT_EQ(source(table, "\"ID\""), kBadSource) << table;
    expect_audit("allow", "");
  }
  for (const std::string& key :
       {std::string("\"ssn\""), std::string("\"\""), std::string("5"), std::string("null"),
        std::string("{}"), std::string("\"a.b\""), "\"" + long_name + "\""}) {
    EXPECT_EQ(source("\"orders\"", key), kBadSource) << key;
    expect_audit("allow", "");
  }
  for (const char* arguments : {R"({"collection":"DOCS","key_field":"ID","columns":[]})",
                                R"({"collection":"DOCS","source_table":"ORDERS","columns":[]})",
                                R"({"collection":"DOCS","columns":[]})"})
    EXPECT_EQ(call("kova_hybrid_search", arguments), kBadSource) << arguments;
  EXPECT_EQ(source("\"orders\"", "\"ID\""), kBadHybrid);
  EXPECT_EQ(source("\"ORDERS\"", "\"" + std::string(63, 'k') + "\""), kBadHybrid);
}

TEST_F(ToolCalls, AHybridSearchNamesAllowedColumns) {
  const auto columns = [this](const std::string& json) {
    return call(
        "kova_hybrid_search",
        R"({"collection":"DOCS","source_table":"ORDERS","key_field":"ID","columns":)" + json + "}");
  };
  EXPECT_EQ(call("kova_hybrid_search",
                 R"({"collection":"DOCS","source_table":"ORDERS","key_field":"ID"})"),
            kBadColumns);
  expect_audit("allow", "");
  for (const char* json : {"null", "5", "\"A\"", "{}", "{\"A\":\"B\"}", "true"}) {
    EXPECT_EQ(columns(json), kBadColumns) << json;
    expect_audit("allow", "");
  }
  for (const std::string& json :
       {std::string("[5]"), std::string("[null]"), std::string("[[]]"), std::string("[[\"A\"]]"),
        std::string("[{}]"), std::string("[\"\"]"), std::string("[\"ssn\"]"),
        std::string("[\"A\",\"SSN\"]"), std::string("[\"A\",[\"B\"],\"C\"]"),
        std::string("[\"A-B\"]"), std::string("[\"A\",\"B\",5]"),
        "[\"" + std::string(64, 'c') + "\"]"}) {
    EXPECT_EQ(columns(json), kDeniedColumn) << json;
    expect_audit("allow", "");
  }
  for (const std::string& json :
       {std::string("[]"), std::string("[\"A\"]"), "[\"A\",\"" + std::string(63, 'c') + "\"]"})
    EXPECT_EQ(columns(json), kBadHybrid) << json;
  use_no_policy();
  EXPECT_EQ(columns("[\"ssn\"]"), kBadHybrid);
}

TEST_F(ToolCalls, OnlyAHybridSearchHasAHybridCheck) {
  for (const OwnRefusal& own : kPlainCollectionTools)
    EXPECT_EQ(call(own.tool, R"({"collection":"DOCS","source_table":"OTHER"})"), own.reply);
}

// Each call has one more, earlier fault than the one before.
TEST_F(ToolCalls, TheGatesStandInOrder) {
  const auto hybrid = [this](const char* arguments) {
    return call("kova_hybrid_search", arguments);
  };
  EXPECT_EQ(hybrid(kHybrid), kBadHybrid);
  EXPECT_EQ(hybrid(R"({"collection":"DOCS","source_table":"ORDERS","key_field":"ID",)"
                   R"("columns":["SSN"]})"),
            kDeniedColumn);
  EXPECT_EQ(hybrid(R"({"collection":"DOCS","source_table":"ORDERS","key_field":"ID",)"
                   R"("columns":"SSN"})"),
            kBadColumns);
  EXPECT_EQ(hybrid(R"({"collection":"DOCS","source_table":"ORDERS","key_field":"SSN",)"
                   R"("columns":"SSN"})"),
            kBadSource);
  EXPECT_EQ(hybrid(R"({"collection":"OTHER","key_field":"SSN","columns":"SSN"})"), kBadCollection);
  providers_switch.set("1");
  EXPECT_EQ(hybrid(R"({"collection":"OTHER","key_field":"SSN","columns":"SSN"})"), kProvidersOff);
  policy->reads_enabled = false;
  EXPECT_EQ(hybrid("null"), kReadsOff);
  policy->valid = false;
  TextOut(policy->error).copy_cut("broken");
  EXPECT_EQ(hybrid("null"), tool_error("broken"));
  EXPECT_EQ(handle_params(R"({"name":5,"arguments":null})"), kBadName);
  EXPECT_EQ(handle_params(R"({"name":5,"arguments":null,"x":1})"), kBadParams);
}

// With writes off the write tool is a name like any other.
TEST_F(ToolCalls, TheWriteToolNeedsWrites) {
  EXPECT_EQ(call("kova_execute", R"({"sql":5})"), kUnknownTool);
  policy->writes_enabled = true;
  EXPECT_EQ(call("kova_execute", R"({"sql":5})"), kBadWrite);
  writes_switch.set("1");
  EXPECT_EQ(call("kova_execute", R"({"sql":5})"), kUnknownTool);
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(ToolCalls, ARepliesIdIsTheRequestsId) {
  EXPECT_EQ(handle_params("{\"name\":\"x\"}", "\"a\\u0042\\\"\""),
            params_error("unknown Vantreo tool", "\"aB\\\"\""));
  policy->reads_enabled = false;
  EXPECT_EQ(handle_params("{\"name\":\"x\"}", "-1.50"),
            tool_error("read tools are disabled by policy", "-1.50"));
  EXPECT_EQ(handle_params("{\"name\":\"x\"}", "\"" + std::string(96, 'i') + "\""),
            tool_error("read tools are disabled by policy", "null"));
}

// Tool results are recorded, refused params are not.
TEST_F(ToolCalls, ResultsAreAudited) {
  EXPECT_EQ(call("unknown"), kUnknownTool);
  EXPECT_EQ(handle_params("{}"), kBadName);
  EXPECT_EQ(handle_params("[]"), kBadParams);
  EXPECT_EQ(audit_records(), 0);
  providers_switch.set("1");
  call("kova_text_search", "{}");
  EXPECT_EQ(audit_records(), 1);
  const std::string log = audit_log();
  EXPECT_NE(log.find(R"("correlation_id":"7","client_identity":"desk-7",)"
                     R"("database_identity":"SHOP","tool":"kova_text_search","policy":"Demo_1",)"
                     R"("policy_decision":"kill_switch","objects":"","duration_ms":)"),
            std::string::npos)
      << log;
  EXPECT_TRUE(log.ends_with(R"("rows":0,"bytes":0,"status":"error","error_class":"tool_error"})"
                            "\r\n"))
      << log;
}

}  // namespace
}  // namespace kova::testing

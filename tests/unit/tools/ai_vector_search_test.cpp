// kova_vector_search: how numbers are written, and where a vector ends.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/ai_search_tools.h"
#include "unit/json/parsed_text.h"
#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

const std::string kBadVectorArguments =
    tool_error("invalid collection, top limit, or unknown argument");
const std::string kBadNumbers = tool_error("vector must contain 1..4096 finite numbers");
const std::string kBadNumber = tool_error("vector contains an invalid number");
const std::string kTooLong = tool_error("vector SQL limit exceeded");
const std::string kVectorSearchDone =
    tool_success(R"({"status":"OK","columns":[],"rows":[],"rowCount":0,"truncated":false})");

std::string repeated(std::string_view element, std::size_t count) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) list += (i == 0 ? "" : ",") + std::string(element);
  return "[" + list + "]";
}

class VectorSearch : public ToolCalls {
 protected:
  std::string search(std::string_view vector, std::string_view top = "5") {
    return call("kova_vector_search", "{\"collection\":\"DOCS\",\"vector\":" + std::string(vector) +
                                          ",\"top\":" + std::string(top) + "}");
  }
  /// The same with room for more tokens than a message has.
  std::string search_long(const std::string& vector) {
    const std::string request =
        R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"kova_vector_search",)"
        R"("arguments":{"collection":"DOCS","top":5,"vector":)" +
        vector + "}}}";
    std::vector<JsonToken> tokens(8192);
    JsonDoc doc;
    EXPECT_TRUE(json_parse(request, tokens.data(), static_cast<int>(tokens.size()), doc));
    ToolContext context{*policy, audit, session};
    CapturedOutput output;
    RpcError error;
    EXPECT_TRUE(handle_tools_call(doc, json_find(doc, 0, "id"), json_find(doc, 0, "params"),
                                  context, error));
    return output.take();
  }
  /// What one number becomes in the statement, or "refused".
  std::string written(std::string_view number) {
    library.forget_calls();
    const std::string reply = search("[" + std::string(number) + "]");
    if (reply == kBadNumber) return "refused";
    const Calls statements = library.statements();
    const std::string head = "SEARCH AI DOCS QUERY [";
    const std::string tail = "] TOP 5;";
    if (statements.size() != 1 || !statements[0].starts_with(head)) return reply;
    return statements[0].substr(head.size(), statements[0].size() - head.size() - tail.size());
  }
};

TEST_F(VectorSearch, SendsOneStatement) {
  EXPECT_EQ(search("[1, 2.5, -3]"), kVectorSearchDone);
  EXPECT_EQ(library.statements(), (Calls{"SEARCH AI DOCS QUERY [1,2.5,-3] TOP 5;"}));
  expect_audit("allow", "DOCS");
  EXPECT_EQ(audit_records(), 1);
}

TEST_F(VectorSearch, NumbersAreWrittenWithNineDigits) {
  struct Row {
    std::string number;
    const char* text;
  };
  const Row rows[] = {
      {"0", "0"},
      {"-0", "-0"},
      {"0.0", "0"},
      {"0e5", "0"},
      {"0e-999", "0"},
      {"1", "1"},
      {"-3", "-3"},
      {"2.5", "2.5"},
      {"0.1", "0.100000001"},
      {"-0.1", "-0.100000001"},
      {"0.2", "0.200000003"},
      {"1e0", "1"},
      {"1E5", "100000"},
      {"1e9", "1e+09"},
      {"1e10", "1e+10"},
      {"123456789", "123456792"},
      {"16777217", "16777216"},
      {"999999999", "1e+09"},
      {"0.0001", "9.99999975e-05"},
      {"1e-5", "9.99999975e-06"},
      {"1e37", "9.99999993e+36"},
      {"1e38", "9.99999968e+37"},
      {"3.402823466e38", "3.40282347e+38"},
      {"-3.402823466e38", "-3.40282347e+38"},
      {"3.402823467e38", "refused"},
      {"-3.402823467e38", "refused"},
      {"1e39", "refused"},
      {"1e308", "refused"},
      {"1e309", "refused"},
      {"-1e400", "refused"},
      {"1.17549435e-38", "1.17549435e-38"},
      {"1e-45", "1.40129846e-45"},
      {"1e-46", "0"},
      {"-1e-46", "-0"},
      {"1e-307", "0"},
      {"1e-310", "0"},
      {"-1e-310", "-0"},
      {"4.9e-324", "0"},
      {"3e-324", "0"},
      {"2e-324", "refused"},
      {"1e-400", "refused"},
      {"-1e-400", "refused"},
      {"0.1e-400", "refused"},
      {"0." + std::string(60, '0') + "1", "0"},  // 63 characters
      {"0." + std::string(61, '0') + "1", "refused"},
      {"1." + std::string(61, '0'), "1"},
      {"1." + std::string(62, '0'), "refused"},
      {"1" + std::string(38, '0'), "9.99999968e+37"},
      {"1" + std::string(62, '0'), "refused"},
  };
  for (const Row& row : rows) EXPECT_EQ(written(row.number), row.text) << row.number;
}

TEST_F(VectorSearch, ElementsAreNumbers) {
  for (const char* vector :
       {"[\"1\"]", "[true]", "[false]", "[null]", "[[1]]", "[{\"a\":1}]", "[[]]", "[1e39]",
        "[1e-400]", "[1,2,\"3\"]", "[1,[2],3]", "[1,2,null]", "[\"\"]", "[{}]"}) {
    EXPECT_EQ(search(vector), kBadNumber) << vector;
    expect_audit("allow", "DOCS");
  }
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(VectorSearch, AVectorIsAnArrayOf1To4096) {
  for (const char* vector : {"null", "5", "\"[1]\"", "{}", "{\"a\":1}", "[]", "true"}) {
    EXPECT_EQ(search(vector), kBadNumbers) << vector;
    expect_audit("allow", "DOCS");
  }
  EXPECT_EQ(call("kova_vector_search", R"({"collection":"DOCS","top":5})"), kBadNumbers);
  expect_audit("allow", "DOCS");
  EXPECT_EQ(call("kova_vector_search", R"({"collection":"DOCS","top":5,"v\u0065ctor":[1]})"),
            kBadNumbers);
  EXPECT_EQ(search_long(repeated("1", 4097)), kBadNumbers);
  // The number of elements is looked at before any of them.
  EXPECT_EQ(search_long(repeated("null", 4097)), kBadNumbers);
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(search_long(repeated("1", 4096)), kVectorSearchDone);
  std::string list = repeated("1", 4096);
  EXPECT_EQ(library.statements(), (Calls{"SEARCH AI DOCS QUERY " + list + " TOP 5;"}));
  EXPECT_EQ(search_long(repeated("null", 4096)), kBadNumber);
}

// A message has 4,096 tokens, of which the call itself takes nineteen.
TEST_F(VectorSearch, AMessageHolds4077Elements) {
  EXPECT_EQ(search(repeated("0", 4077)), kVectorSearchDone);
  const std::string request =
      R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"kova_vector_search",)"
      R"("arguments":{"collection":"DOCS","top":5,"vector":)" +
      repeated("0", 4078) + "}}}";
  std::vector<JsonToken> tokens(kMessageTokenCapacity);
  JsonDoc doc;
  EXPECT_FALSE(json_parse(request, tokens.data(), kMessageTokenCapacity, doc));
}

// The executor's own bound stands behind the tool's.
TEST_F(VectorSearch, AStatementOfOver32768BytesIsRefusedByTheExecutor) {
  const std::string bounds = tool_error("invalid database execution bounds");
  // "SEARCH AI DOCS QUERY [" and "] TOP 5;" take 30 bytes; 2,046 elements of 15 characters and
  // their commas 32,735, and the last comma one more.
  const std::string head = repeated("-1.23456789e-30", 2046);
  const std::string open = head.substr(0, head.size() - 1) + ",";
  EXPECT_EQ(search(open + "1]"), kVectorSearchDone);
  EXPECT_EQ(search(open + "10]"), kVectorSearchDone);
  EXPECT_EQ(library.statements().at(1).size(), 32768U);
  library.forget_calls();
  EXPECT_EQ(search(open + "100]"), bounds);
  EXPECT_EQ(search(repeated("-1.23456789e-30", 4000)), bounds);
  expect_audit("allow", "DOCS");
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(VectorSearch, TheAreaHas65536Bytes) {
  EXPECT_EQ(search_long(repeated("-1.23456789e-30", 4096)), kTooLong);
  expect_audit("allow", "DOCS");
  // The first fault speaks: an element that is no number stands behind the end of the area.
  const std::string full = repeated("-1.23456789e-30", 4095);
  EXPECT_EQ(search_long(full.substr(0, full.size() - 1) + ",null]"), kTooLong);
  const std::string half = repeated("-1.23456789e-30", 2000);
  EXPECT_EQ(search_long(half.substr(0, half.size() - 1) + ",null]"), kBadNumber);
  EXPECT_EQ(library.calls(), Calls{});
}

/// Composes the search of one collection's name for a vector, in an area before an unreadable page:
/// the statement, or the message.
std::string composed(std::string_view vector, const std::string& collection, std::uint32_t top) {
  const ParsedText parsed(vector);
  EXPECT_TRUE(parsed.ok());
  const GuardedBuffer area(kVectorStatementCapacity);
  char message[256] = {};
  return compose_vector_search(parsed.doc(), 0, collection.c_str(), top, {area.data(), area.size()},
                               message)
             ? area.data()
             : message;
}

TEST(ComposeVectorSearch, WritesTheStatement) {
  EXPECT_EQ(composed("[0.1]", "DOCS", 256), "SEARCH AI DOCS QUERY [0.100000001] TOP 256;");
  EXPECT_EQ(composed(" [ 1 , 2 ] ", "c", 1), "SEARCH AI c QUERY [1,2] TOP 1;");
}

// With every element 32 bytes stay free: "] TOP n;" always fits.
TEST(ComposeVectorSearch, KeepsRoomBehindEveryElement) {
  const std::string limit = "vector SQL limit exceeded";
  const auto name = [](std::size_t length) {
    // "SEARCH AI ", " QUERY [" and one digit are nineteen bytes.
    return std::string(length - 19, 'c');
  };
  EXPECT_EQ(composed("[1]", name(65503), 256), "SEARCH AI " + name(65503) + " QUERY [1] TOP 256;");
  EXPECT_EQ(composed("[1]", name(65504), 256), limit);
  EXPECT_EQ(composed("[1,2]", name(65501), 256),
            "SEARCH AI " + name(65501) + " QUERY [1,2] TOP 256;");
  EXPECT_EQ(composed("[1,2]", name(65502), 256), limit);
  EXPECT_EQ(composed("[-1.23456789e-30]", name(65536), 1), limit);
  EXPECT_EQ(composed("[1]", std::string(65516, 'c'), 1), limit);
  EXPECT_EQ(composed("[1]", std::string(65517, 'c'), 1), limit);
  EXPECT_EQ(composed("[1]", std::string(65518, 'c'), 1), limit);
  EXPECT_EQ(composed("[1]", std::string(100000, 'c'), 1), limit);
}

// --- arguments --------------------------------------------------------------------------------

TEST_F(VectorSearch, ArgumentsAreKnownAndComplete) {
  for (const char* arguments : {R"({"collection":"DOCS"})", R"({"collection":"DOCS","vector":[1]})",
                                R"({"collection":"DOCS","vector":[1],"top":5,"a":1})",
                                R"({"collection":"DOCS","vector":[1],"top":5,"text":"x"})",
                                R"({"collection":"DOCS","Vector":[1],"top":5})",
                                R"({"collection":"DOCS","vector":[1],"t\u006fp":5})"}) {
    EXPECT_EQ(call("kova_vector_search", arguments), kBadVectorArguments) << arguments;
    expect_audit("allow", "");
  }
  for (const char* top :
       {"0", "257", "-1", "\"5\"", "5.0", "1e2", "null", "true", "[5]", "{}", "4294967297"}) {
    EXPECT_EQ(search("[1]", top), kBadVectorArguments) << top;
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(call("kova_vector_search",
                 R"({"_meta":{"vector":"x"},"collection":"docs","vector":[1],"top":256})"),
            kVectorSearchDone);
  EXPECT_EQ(library.statements(), (Calls{"SEARCH AI docs QUERY [1] TOP 256;"}));
}

// The arguments are looked at before the vector, and the vector before its elements.
TEST_F(VectorSearch, TheChecksStandInOrder) {
  EXPECT_EQ(search("[]", "0"), kBadVectorArguments);
  EXPECT_EQ(search("[null]", "257"), kBadVectorArguments);
  EXPECT_EQ(search("[]"), kBadNumbers);
  EXPECT_EQ(search("[null]"), kBadNumber);
}

// It asks no provider.
TEST_F(VectorSearch, NeedsNoProviders) {
  providers_switch.set("1");
  policy->provider_reads_enabled = false;
  EXPECT_EQ(search("[1]"), kVectorSearchDone);
}

TEST_F(VectorSearch, TopBoundsTheRows) {
  library.other = {.status = "ok", .columns = {"RANK"}, .rows = {{"1"}, {"2"}, {"3"}}};
  EXPECT_EQ(search("[1]", "2"),
            tool_success(R"({"status":"ok","columns":["RANK"],"rows":[["1"],["2"]],)"
                         R"("rowCount":2,"truncated":true})"));
}

TEST_F(VectorSearch, AFailureHasTheEnginesMessage) {
  library.answer("SEARCH AI DOCS QUERY [1,2,3] TOP 5;",
                 {.code = 0, .status = "vector has 3 dimensions, DOCS has 8"});
  EXPECT_EQ(search("[1,2,3]"), tool_error("vector has 3 dimensions, DOCS has 8"));
  expect_audit("allow", "DOCS");
}

}  // namespace
}  // namespace kova::testing

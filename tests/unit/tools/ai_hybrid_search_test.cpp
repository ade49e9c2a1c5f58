// kova_hybrid_search: three statements around one temporary table.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "platform/process.h"
#include "tools/ai_collection.h"
#include "tools/hybrid_search_tool.h"
#include "unit/json/parsed_text.h"
#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

const std::string kBadHybridArguments =
    tool_error("invalid hybrid collection, source mapping, text, top, or unknown argument");
const std::string kBadColumnList = tool_error("columns must contain 1..16 safe field names");
const std::string kTextTooLong = tool_error("hybrid text exceeds SQL limit");
const std::string kEmpty =
    R"({"status":"OK","columns":[],"rows":[],"rowCount":0,"truncated":false})";

std::string names(std::size_t count) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i)
    list += (i == 0 ? "\"C" : ",\"C") + std::to_string(i) + '"';
  return "[" + list + "]";
}

class HybridSearch : public ToolCalls {
 protected:
  std::string search(std::string_view text = "\"red car\"",
                     std::string_view columns = R"(["TITLE","BODY"])", std::string_view top = "5") {
    return call("kova_hybrid_search", R"({"collection":"DOCS","source_table":"ORDERS",)"
                                      R"("key_field":"ID","text":)" +
                                          std::string(text) +
                                          ",\"columns\":" + std::string(columns) +
                                          ",\"top\":" + std::string(top) + "}");
  }
  /// The name of the temporary table in a search's statement.
  static std::string temporary_of(const std::string& statement) {
    const std::string marker = " INTO TEMP ";
    const std::size_t at = statement.rfind(marker);
    EXPECT_NE(at, std::string::npos) << statement;
    if (at == std::string::npos) return "";
    const std::size_t begin = at + marker.size();
    return statement.substr(begin, statement.size() - begin - 1);
  }
  /// The counter at the end of the temporary name of a search that succeeds.
  unsigned long next_counter() {
    library.forget_calls();
    EXPECT_EQ(search(), tool_success(kEmpty));
    const std::string name = temporary_of(library.statements().at(0));
    return std::stoul(name.substr(name.rfind('_') + 1));
  }
  /// Sets the result of every statement that begins so, whatever the temporary table is called.
  void answer_beginning(const std::string& beginning, const FakeResult& result) {
    library.on_exec = [this, beginning, result](const char* statement) {
      if (std::string_view(statement).starts_with(beginning)) library.answer(statement, result);
    };
  }
  static std::string select_of(const std::string& hits, const std::string& projection) {
    return "SELECT " + hits + ".RANK," + hits + ".SCORE," + hits + ".VECTOR_ID," + hits +
           ".SOURCE_KEY" + projection + " FROM " + hits + ",ORDERS WHERE " + hits +
           ".SOURCE_KEY=ORDERS.ID ORDER BY " + hits + ".RANK;";
  }
};

TEST_F(HybridSearch, RunsThreeStatements) {
  EXPECT_EQ(search(), tool_success(kEmpty));
  const Calls statements = library.statements();
  ASSERT_EQ(statements.size(), 3U);
  const std::string hits = temporary_of(statements[0]);
  EXPECT_EQ(statements[0], "SEARCH AI DOCS TEXT 'red car' TOP 5 INTO TEMP " + hits + ";");
  EXPECT_EQ(statements[1], select_of(hits, ",ORDERS.TITLE,ORDERS.BODY"));
  EXPECT_EQ(statements[2], "DROP TABLE " + hits + ";");
  EXPECT_EQ(hits.substr(0, hits.rfind('_')), "mcp_hits_" + std::to_string(own_process_id()));
  // It leaves no objects.
  expect_audit("allow", "");
  EXPECT_EQ(audit_records(), 1);
}

TEST_F(HybridSearch, EverySearchHasATableOfItsOwn) {
  const unsigned long first = next_counter();
  EXPECT_GE(first, 1U);
  EXPECT_EQ(next_counter(), first + 1);
  EXPECT_EQ(next_counter(), first + 2);
  // Refused before the name is made, and after.
  EXPECT_EQ(search("\"x\"", "[]"), kBadColumnList);
  EXPECT_EQ(search("\"\\u0001\""), kTextTooLong);
  EXPECT_EQ(next_counter(), first + 4);
}

TEST_F(HybridSearch, NamesAreSpelledAsTheClientDoes) {
  EXPECT_EQ(call("kova_hybrid_search",
                 R"({"collection":"docs","source_table":"Orders","key_field":"9_id","text":"x",)"
                 R"("columns":["a","A","T\u0049TLE"],"top":256,"_meta":{}})"),
            tool_success(kEmpty));
  const Calls statements = library.statements();
  ASSERT_EQ(statements.size(), 3U);
  const std::string hits = temporary_of(statements[0]);
  EXPECT_EQ(statements[0], "SEARCH AI docs TEXT 'x' TOP 256 INTO TEMP " + hits + ";");
  EXPECT_TRUE(statements[1].ends_with(",Orders.a,Orders.A,Orders.TITLE FROM " + hits +
                                      ",Orders WHERE " + hits +
                                      ".SOURCE_KEY=Orders.9_id ORDER BY " + hits + ".RANK;"))
      << statements[1];
}

TEST_F(HybridSearch, TheAnswerIsTheSelects) {
  answer_beginning("SELECT ",
                   {.status = "ok", .columns = {"RANK", "TITLE"}, .rows = {{"1", "Car"}}});
  const std::string json = R"({"status":"ok","columns":["RANK","TITLE"],"rows":[["1","Car"]],)"
                           R"("rowCount":1,"truncated":false})";
  EXPECT_EQ(search(), tool_success(json));
  const std::string log = audit_log();
  EXPECT_NE(log.find("\"objects\":\"\",\"duration_ms\""), std::string::npos) << log;
  EXPECT_NE(log.find("\"rows\":1,\"bytes\":" + std::to_string(json.size())), std::string::npos)
      << log;
}

// Search and select read `top` rows, the drop one.
TEST_F(HybridSearch, TheBoundsOfTheThree) {
  library.other = {.columns = {"A"}, .rows = {{"1"}, {"2"}, {"3"}, {"4"}}};
  EXPECT_NE(search("\"x\"", "[\"A\"]", "2").find("\"rowCount\":2,\"truncated\":true"),
            std::string::npos);
  EXPECT_EQ(library.count("data "), 2 + 2 + 1);
}

// --- failures of the statements ---------------------------------------------------------------

TEST_F(HybridSearch, AFailedSearchRunsNothingElse) {
  answer_beginning("SEARCH ", {.code = 0, .status = "no such collection: DOCS"});
  EXPECT_EQ(search(), tool_error("no such collection: DOCS"));
  EXPECT_EQ(library.statements().size(), 1U);
  expect_audit("allow", "");
  // Also when its result is what fails.
  library.forget_calls();
  answer_beginning("SEARCH ", {.columns = {"A"}, .rows = {{std::string(16385, 'x')}}});
  EXPECT_EQ(search(), tool_error("database cell limit exceeded"));
  EXPECT_EQ(library.statements().size(), 1U);
}

TEST_F(HybridSearch, AFailedSelectStillDrops) {
  answer_beginning("SELECT ", {.code = 0, .status = "no such column: TITLE"});
  EXPECT_EQ(search(), tool_error("no such column: TITLE"));
  Calls statements = library.statements();
  ASSERT_EQ(statements.size(), 3U);
  EXPECT_EQ(statements[2], "DROP TABLE " + temporary_of(statements[0]) + ";");
  library.forget_calls();
  answer_beginning("SELECT ", {.columns = {"A"}, .rows = {{std::string(16385, 'x')}}});
  EXPECT_EQ(search(), tool_error("database cell limit exceeded"));
  EXPECT_EQ(library.statements().size(), 3U);
  library.forget_calls();
  answer_beginning("SELECT ", {.code = 0, .status = ""});
  EXPECT_EQ(search(), tool_error("database statement failed"));
  EXPECT_EQ(library.statements().size(), 3U);
}

TEST_F(HybridSearch, AFailedDropDoesNotCount) {
  answer_beginning("DROP ", {.code = 0, .status = "table is locked"});
  EXPECT_EQ(search(), tool_success(kEmpty));
  EXPECT_EQ(library.statements().size(), 3U);
}

TEST_F(HybridSearch, TheSelectsFailureSpeaksBeforeTheDrops) {
  library.on_exec = [this](const char* statement) {
    const std::string text(statement);
    if (text.starts_with("SELECT ")) library.answer(text, {.code = 0, .status = "bad select"});
    if (text.starts_with("DROP ")) library.answer(text, {.code = 0, .status = "bad drop"});
  };
  EXPECT_EQ(search(), tool_error("bad select"));
  EXPECT_EQ(library.statements().size(), 3U);
}

// Running out of memory in a statement's result is that statement's failure.
TEST_F(HybridSearch, WithoutMemoryForTheRowsTheTableIsDropped) {
  const std::string no_memory = tool_error("database result byte limit exceeded");
  for (const std::string failing : {"SEARCH ", "SELECT ", "DROP "}) {
    library.forget_calls();
    std::optional<AllocationFailure> failure;
    bool happened = false;
    library.on_exec = [&](const char* statement) {
      if (failure) happened = AllocationFailure::happened();
      failure.reset();
      if (std::string_view(statement).starts_with(failing)) failure.emplace(1);
    };
    const std::string reply = search();
    if (failure) happened = AllocationFailure::happened();
    failure.reset();
    EXPECT_TRUE(happened) << failing;
    EXPECT_EQ(reply, failing == "DROP " ? tool_success(kEmpty) : no_memory) << failing;
    EXPECT_EQ(library.statements().size(), failing == "SEARCH " ? 1U : 3U) << failing;
  }
}

// --- arguments --------------------------------------------------------------------------------

TEST_F(HybridSearch, ArgumentsAreKnownAndComplete) {
  const std::string names_part =
      R"("collection":"DOCS","source_table":"ORDERS","key_field":"ID","columns":["A"])";
  for (const char* rest :
       {"", R"(,"text":"x")", R"(,"top":5)", R"(,"text":"x","top":5,"a":1)",
        R"(,"text":"x","top":5,"vector":[1])", R"(,"text":"x","top":5,"max_rows":5)",
        R"(,"Text":"x","top":5)", R"(,"te\u0078t":"x","top":5)", R"(,"text":"x","t\u006fp":5)"}) {
    EXPECT_EQ(call("kova_hybrid_search", "{" + names_part + rest + "}"), kBadHybridArguments)
        << rest;
    expect_audit("allow", "");
  }
  for (const char* top :
       {"0", "257", "-1", "\"5\"", "5.0", "1e2", "null", "true", "[5]", "{}", "4294967297"})
    EXPECT_EQ(search("\"x\"", "[\"A\"]", top), kBadHybridArguments) << top;
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(HybridSearch, TheTextHas1To8192Bytes) {
  const auto literal = [](std::size_t size) { return "\"" + std::string(size, 'x') + "\""; };
  for (const std::string& text :
       {std::string("null"), std::string("5"), std::string("[\"x\"]"), std::string("\"\""),
        std::string("\"\\u0000x\""), std::string("\"\\ud800\""), literal(8193), literal(16400),
        literal(16401), literal(500000)})
    EXPECT_EQ(search(text), kBadHybridArguments) << text.substr(0, 80);
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(search(literal(8192)), tool_success(kEmpty));
  library.forget_calls();
  EXPECT_EQ(search("\"" + std::string(8192, '\'') + "\""), tool_success(kEmpty));
  EXPECT_TRUE(library.statements().at(0).starts_with("SEARCH AI DOCS TEXT '" +
                                                     std::string(16384, '\'') + "' TOP 5 INTO "));
}

// Which shows when the text itself ends early.
TEST_F(HybridSearch, TheTextIsDecodedInto16400Bytes) {
  EXPECT_EQ(search("\"x\\u0000" + std::string(16398, 'y') + "\""), tool_success(kEmpty));
  EXPECT_TRUE(library.statements().at(0).starts_with("SEARCH AI DOCS TEXT 'x' TOP 5 INTO "));
  EXPECT_EQ(search("\"x\\u0000" + std::string(16399, 'y') + "\""), kBadHybridArguments);
}

TEST_F(HybridSearch, ThereAre1To16Columns) {
  EXPECT_EQ(search("\"x\"", "[]"), kBadColumnList);
  EXPECT_EQ(search("\"x\"", names(17)), kBadColumnList);
  EXPECT_EQ(search("\"x\"", names(1000)), kBadColumnList);
  expect_audit("allow", "");
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(search("\"x\"", names(1)), tool_success(kEmpty));
  EXPECT_EQ(search("\"x\"", names(16)), tool_success(kEmpty));
}

// In this tool a control byte in the text has a message of its own, behind the columns' count.
TEST_F(HybridSearch, TheChecksStandInOrder) {
  EXPECT_EQ(search("\"\\u0001\"", "[]", "0"), kBadHybridArguments);
  EXPECT_EQ(search("\"\\u0001\"", "[]"), kBadColumnList);
  EXPECT_EQ(search("\"\\u0001\"", names(17)), kBadColumnList);
  for (const char* text : {"\"\\u0001\"", "\"a\\u001f\"", "\"\\b\"", "\"\\f\"", "\"\\u000b\""})
    EXPECT_EQ(search(text, "[\"A\"]"), kTextTooLong) << text;
  expect_audit("allow", "");
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(search("\"a\\t\\n\\r\"", "[\"A\"]"), tool_success(kEmpty));
}

// The frame looks at the columns' names before the tool looks at anything.
TEST_F(HybridSearch, AnUnsafeColumnIsRefusedByThePolicyCheck) {
  EXPECT_EQ(search("5", "[\"A-B\"]", "0"), tool_error("hybrid column is denied by MCP policy"));
  expect_audit("allow", "");
}

TEST_F(HybridSearch, NeedsProviders) {
  policy->provider_reads_enabled = false;
  EXPECT_EQ(search(),
            tool_error("provider-backed MCP reads are disabled by policy or kill switch"));
  expect_audit("kill_switch", "");
}

// --- the select -------------------------------------------------------------------------------

/// Composes a select in an area before an unreadable page: the statement, or the message.
std::string composed(std::string_view columns, const HybridJoin& join = {"h", "T", "K"}) {
  const ParsedText parsed(columns, 2048);
  EXPECT_TRUE(parsed.ok());
  const GuardedBuffer area(kAiStatementCapacity);
  char message[256] = {};
  return compose_hybrid_select(parsed.doc(), 0, join, {area.data(), area.size()}, message)
             ? area.data()
             : message;
}

TEST(ComposeHybridSelect, JoinsTheHitsToTheirRows) {
  EXPECT_EQ(
      composed(R"(["TITLE","BODY"])",
               {.temporary = "mcp_hits_4242_1", .source_table = "ARTICLES", .key_field = "ID"}),
      "SELECT mcp_hits_4242_1.RANK,mcp_hits_4242_1.SCORE,mcp_hits_4242_1.VECTOR_ID,"
      "mcp_hits_4242_1.SOURCE_KEY,ARTICLES.TITLE,ARTICLES.BODY FROM mcp_hits_4242_1,ARTICLES "
      "WHERE mcp_hits_4242_1.SOURCE_KEY=ARTICLES.ID ORDER BY mcp_hits_4242_1.RANK;");
}

TEST(ComposeHybridSelect, WithoutColumnsThereIsNone) {
  EXPECT_EQ(composed("[]"), "hybrid columns are missing");
}

TEST(ComposeHybridSelect, ColumnsAreSafeNames) {
  const std::string invalid = "hybrid column name is invalid";
  for (const std::string& columns :
       {std::string("[\"A-B\"]"), std::string("[\"\"]"), std::string("[5]"), std::string("[null]"),
        std::string("[[\"A\"]]"), std::string("[{}]"), std::string("[\"A\",\"B.C\"]"),
        std::string("[\"A\",\"\\ud800\"]"), std::string("[\"A B\"]"), std::string("[\"A;\"]"),
        std::string("[\"\\u00e9\"]"), "[\"" + std::string(64, 'c') + "\"]"})
    EXPECT_EQ(composed(columns), invalid) << columns;
  const std::string longest(63, 'c');
  EXPECT_TRUE(composed("[\"" + longest + "\"]").find(",T." + longest + " FROM ") !=
              std::string::npos);
}

// Behind every column 256 bytes stay free.
TEST(ComposeHybridSelect, KeepsRoomBehindEveryColumn) {
  const std::string head = "SELECT h.RANK,h.SCORE,h.VECTOR_ID,h.SOURCE_KEY";
  const std::string too_large = "hybrid projection is too large";
  // Columns whose text behind the head has exactly so many bytes.
  const auto columns = [](std::size_t bytes) {
    constexpr std::size_t kEach = 60;  // ",T." and 57 characters
    std::string list;
    while (bytes > 0) {
      const std::size_t take = bytes < kEach + 4 ? bytes : kEach;
      list += (list.empty() ? "\"" : ",\"") + std::string(take - 3, 'c') + "\"";
      bytes -= take;
    }
    return "[" + list + "]";
  };
  const std::size_t most = 32768 - 256 - 1 - head.size();
  const std::string statement = composed(columns(most));
  EXPECT_TRUE(statement.starts_with(head + ",T.ccc")) << statement.substr(0, 100);
  EXPECT_TRUE(statement.ends_with("c FROM h,T WHERE h.SOURCE_KEY=T.K ORDER BY h.RANK;"));
  EXPECT_EQ(composed(columns(most + 1)), too_large);
  EXPECT_EQ(composed(columns(most + 300)), too_large);
  // The first fault speaks.
  std::string list = columns(most + 1);
  list.insert(list.size() - 1, ",5");
  EXPECT_EQ(composed(list), too_large);
  list = columns(most);
  list.insert(list.size() - 1, ",5");
  EXPECT_EQ(composed(list), "hybrid column name is invalid");
}

TEST(ComposeHybridSelect, NamesThatFillTheAreaAreTooLarge) {
  const std::string long_name(8200, 'n');
  EXPECT_EQ(composed("[\"A\"]", {long_name.c_str(), "T", "K"}), "hybrid projection is too large");
  const std::string longest(32768, 'n');
  EXPECT_EQ(composed("[\"A\"]", {"h", longest.c_str(), "K"}), "hybrid projection is too large");
  EXPECT_EQ(composed("[\"A\"]", {"h", "T", longest.c_str()}), "hybrid projection is too large");
}

}  // namespace
}  // namespace kova::testing

// kova_query through the frame: arguments, screen, policy, terminator, result.
#include "tools/query_tool.h"

#include <gtest/gtest.h>

#include <string>

#include "unit/tools/tool_fixture.h"

namespace kova::testing {
namespace {

const std::string kBadQuery = tool_error(
    "sql must be one bounded read-only SELECT; unknown fields are rejected; max_rows must be "
    "1..256");

class QueryTool : public ToolCalls {
 protected:
  std::string query(std::string_view sql) {
    return call("kova_query", "{\"sql\":" + json_literal(sql) + "}");
  }
  std::string query_rows(const std::string& max_rows) {
    return call("kova_query", "{\"sql\":\"SELECT 1;\",\"max_rows\":" + max_rows + "}");
  }
  /// The one statement that the query sent.
  std::string sent(std::string_view sql) {
    library.forget_calls();
    query(sql);
    const Calls statements = library.statements();
    EXPECT_EQ(statements.size(), 1U) << sql;
    return statements.empty() ? "" : statements[0];
  }
  static FakeResult rows(int count) {
    FakeResult result = {.status = "ok", .columns = {"N"}};
    for (int i = 0; i < count; ++i) result.rows.push_back({std::to_string(i)});
    return result;
  }
};

TEST_F(QueryTool, AnswersWithTheRows) {
  library.answer("SELECT N FROM orders;", rows(2));
  const std::string json =
      R"({"status":"ok","columns":["N"],"rows":[["0"],["1"]],"rowCount":2,"truncated":false})";
  EXPECT_EQ(query("SELECT N FROM orders"), tool_success(json));
  expect_audit("allow", "policy-select");
  const std::string log = audit_log();
  EXPECT_NE(log.find(R"("tool":"kova_query","policy":"Demo_1","policy_decision":"allow",)"
                     R"("objects":"policy-select","duration_ms":)"),
            std::string::npos)
      << log;
  EXPECT_TRUE(log.ends_with("\"rows\":2,\"bytes\":" + std::to_string(json.size()) +
                            ",\"status\":\"ok\",\"error_class\":\"none\"}\r\n"))
      << log;
}

TEST_F(QueryTool, WithoutMemoryForTheStatement) {
  const std::string request =
      R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"kova_query",)"
      R"("arguments":{"sql":"SELECT N FROM orders"}}})";
  EXPECT_EQ(handle(request, 1), tool_error("server memory limit"));
  EXPECT_TRUE(AllocationFailure::happened());
  EXPECT_TRUE(library.statements().empty());
}

TEST_F(QueryTool, ArgumentsAreAnObjectOfKnownMembers) {
  for (const char* arguments :
       {"null", "[]", "\"SELECT 1\"", "5", "{}", R"({"max_rows":5})", R"({"sql":5})",
        R"({"sql":null})", R"({"sql":["SELECT 1"]})", R"({"sql":"SELECT 1","x":1})",
        R"({"sql":"SELECT 1","maxRows":1})", R"({"SQL":"SELECT 1"})", R"({"s\u0071l":"SELECT 1"})",
        R"({"sql":"SELECT \ud800"})", R"({"sql":""})"}) {
    EXPECT_EQ(call("kova_query", arguments), kBadQuery) << arguments;
    expect_audit("allow", "");
  }
  EXPECT_EQ(call("kova_query"), kBadQuery);
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_EQ(audit_records(), 16);
}

TEST_F(QueryTool, MetaIsTolerated) {
  EXPECT_NE(call("kova_query", R"({"_meta":{"a":1},"sql":"SELECT 1"})").find("\"isError\":false"),
            std::string::npos);
}

TEST_F(QueryTool, MaxRowsIsAWholeNumberOf1To256) {
  library.answer("SELECT 1;", rows(300));
  for (const char* bad : {"0", "257", "-1", "\"5\"", "5.0", "1e2", "null", "true", "[5]", "{}",
                          "4294967297", "99999999999999999999"}) {
    EXPECT_EQ(query_rows(bad), kBadQuery) << bad;
    expect_audit("allow", "");
  }
  EXPECT_NE(query_rows("1").find("\"rowCount\":1,\"truncated\":true"), std::string::npos);
  EXPECT_NE(query_rows("256").find("\"rowCount\":256,\"truncated\":true"), std::string::npos);
  EXPECT_NE(query("SELECT 1;").find("\"rowCount\":100,\"truncated\":true"), std::string::npos);
  // An escaped spelling is a member and is not found.
  EXPECT_NE(call("kova_query", R"({"sql":"SELECT 1;","m\u0061x_rows":1})")
                .find("\"rowCount\":100,\"truncated\":true"),
            std::string::npos);
}

TEST_F(QueryTool, TheScreenStandsBeforeThePolicy) {
  for (const char* sql :
       {"DROP TABLE orders", "SELECT ssn FROM orders; SELECT 1", "SELECT ssn -- x",
        "SELECT a FROM secret WHERE SET = 1", "WITH x AS (SELECT 1) SELECT * FROM x", "SELECT 'abc",
        "SELECT a /* x */ FROM orders", "SELECT a FROM orders # x"}) {
    EXPECT_EQ(query(sql), kBadQuery) << sql;
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(QueryTool, ThePolicyHasItsOwnMessages) {
  struct Row {
    const char* sql;
    const char* message;
  };
  constexpr Row kRows[] = {
      {"SELECT ssn FROM orders", "column is denied by MCP policy"},
      {"SELECT a FROM secret", "table is not allowed by MCP policy"},
      {"SELECT a FROM orders UNION SELECT 1",
       "subqueries and UNION are not enabled by this policy version"},
      {"SELECT * FROM orders", "wildcard projection is denied when columns are restricted"},
      {"SELECT (a FROM orders", "unterminated SQL literal or parentheses"},
      {"SELECT a) FROM orders", "unbalanced SQL parentheses"},
  };
  for (const Row& row : kRows) {
    EXPECT_EQ(query(row.sql), tool_error(row.message)) << row.sql;
    expect_audit("allow", "");
  }
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(QueryTool, WithoutAPolicyTheScreenIsAll) {
  use_no_policy();
  EXPECT_EQ(sent("SELECT * FROM (SELECT ssn FROM secret)"),
            "SELECT * FROM (SELECT ssn FROM secret);");
  EXPECT_EQ(query("DROP TABLE t"), kBadQuery);
}

TEST_F(QueryTool, SendsTheTextWithATerminator) {
  EXPECT_EQ(sent("select a from orders"), "select a from orders;");
  EXPECT_EQ(sent("select 1;  "), "select 1;  ");
  EXPECT_EQ(sent("select 1   "), "select 1;");
  EXPECT_EQ(sent("  select 'it''s; --'"), "  select 'it''s; --';");
  EXPECT_EQ(sent("select caf\xC3\xA9"), "select caf\xC3\xA9;");
}

TEST_F(QueryTool, DecodesTheText) {
  library.forget_calls();
  call("kova_query", R"({"sql":"SELECT\n\u0027\u00e9\u0027\t;"})");
  EXPECT_EQ(library.statements(), (Calls{"SELECT\n'\xC3\xA9'\t;"}));
}

// A decoded text ends at an escaped NUL; what follows is neither checked nor sent.
TEST_F(QueryTool, ATextEndsAtAnEscapedNul) {
  call("kova_query", R"({"sql":"SELECT 1\u0000; DROP TABLE orders"})");
  EXPECT_EQ(library.statements(), (Calls{"SELECT 1;"}));
}

TEST_F(QueryTool, HasUpTo32768Bytes) {
  const std::string text = "SELECT " + std::string(32767 - 7, '1');
  EXPECT_EQ(sent(text), text + ";");
  EXPECT_EQ(sent(text + ";"), text + ";");
  EXPECT_EQ(sent(text + " "), text + ";");
  library.forget_calls();
  EXPECT_EQ(query(text + "1"), tool_error("sql size limit exceeded"));
  expect_audit("allow", "policy-select");
  EXPECT_EQ(query(text + "1;"), kBadQuery);
  expect_audit("allow", "");
  EXPECT_EQ(query(text + "  "), kBadQuery);
  EXPECT_EQ(query(std::string(500000, ' ') + "SELECT 1"), kBadQuery);
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(QueryTool, TheTraceNamesTheCheck) {
  CallTrace seen;
  trace = &seen;
  const auto check = [&](const std::string& sql) {
    seen = {};
    query(sql);
    return seen.check.check;
  };
  const std::string text = "SELECT " + std::string(32767 - 7, '1');
  EXPECT_EQ(check(text), "select");
  EXPECT_EQ(check(text + "1"), "select-size");
  EXPECT_EQ(check(text + "1;"), "arguments");
  EXPECT_EQ(check(""), "screen-size");
}

struct Terminated {
  std::string sql;
  std::string with_end;
};

// What stands before the statement is not the statement's.
TEST(TerminateStatement, LooksAtTheStatementAlone) {
  for (const auto& [sql, with_end] :
       {Terminated{"", ";"}, Terminated{" ", ";"}, Terminated{";", ";"}, Terminated{"; ", "; "},
        Terminated{"a", "a;"}, Terminated{" a \t", " a;"}}) {
    for (const std::string before : {"x ", "x;"}) {
      std::string text = before + sql + std::string(2, '\0');
      EXPECT_TRUE(terminate_statement(text.data() + before.size())) << sql;
      EXPECT_STREQ(text.c_str(), (before + with_end).c_str()) << sql;
    }
  }
}

// The policy is asked before the size.
TEST_F(QueryTool, ThePolicyStandsBeforeTheSize) {
  const std::string text = "SELECT ssn" + std::string(32768 - 10, '_');
  EXPECT_EQ(query("SELECT " + std::string(32768 - 11, '1') + " ssn"),
            tool_error("column is denied by MCP policy"));
  expect_audit("allow", "");
  EXPECT_EQ(query(text), tool_error("sql size limit exceeded"));
}

TEST_F(QueryTool, AFailureHasTheEnginesMessage) {
  library.answer("SELECT 1;", {.code = 0, .status = "no such column: \"N\""});
  EXPECT_EQ(query("SELECT 1"), tool_error("no such column: \"N\""));
  expect_audit("allow", "policy-select");
  library.answer("SELECT 1;", {.columns = {"A"}, .rows = {{std::string(16385, 'x')}}});
  EXPECT_EQ(query("SELECT 1"), tool_error("database cell limit exceeded"));
  disconnect(session);
  password_variable.unset();
  EXPECT_EQ(query("SELECT 1"), tool_error("authenticated Vantreo profile is unavailable"));
  EXPECT_EQ(audit_records(), 3);
}

// The result is there twice, and longer than any one write.
TEST_F(QueryTool, ALargeResultIsWhole) {
  FakeResult large = {.status = "ok", .columns = {"A"}};
  std::string rows;
  for (int i = 0; i < 60; ++i) {
    const std::string cell(16000, static_cast<char>('a' + i % 26));
    large.rows.push_back({cell});
    rows += (i == 0 ? "[\"" : ",[\"") + cell + "\"]";
  }
  library.answer("SELECT 1;", large);
  EXPECT_EQ(query("SELECT 1"), tool_success("{\"status\":\"ok\",\"columns\":[\"A\"],\"rows\":[" +
                                            rows + "],\"rowCount\":60,\"truncated\":false}"));
}

}  // namespace
}  // namespace kova::testing

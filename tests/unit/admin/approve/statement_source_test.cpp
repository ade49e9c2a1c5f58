// Taking the statement out of a file's text or a client's message.
#include "admin/approve/statement_source.h"

#include <gtest/gtest.h>

#include <string>

#include "admin/common/refusal.h"

namespace kova::admin {
namespace {

std::string refusal_of(std::string_view text) {
  try {
    return "accepted: " + statement_of(text);
  } catch (const Refusal& refusal) {
    return refusal.what();
  }
}

TEST(StatementSource, TakesAStatementAsItIs) {
  EXPECT_EQ(statement_of("delete from t\n"), "delete from t\n");
  EXPECT_EQ(statement_of(""), "");
  EXPECT_EQ(statement_of(" {\"sql\":1}"), " {\"sql\":1}");
  EXPECT_EQ(statement_of("update t set a = 'gr\xC3\xBC\xC3\x9F'"),
            "update t set a = 'gr\xC3\xBC\xC3\x9F'");
}

TEST(StatementSource, TakesTheStatementOfAMessage) {
  EXPECT_EQ(statement_of(R"({"sql":"delete\nfrom \u0074"})"), "delete\nfrom t");
  EXPECT_EQ(statement_of(R"({"sql":"x","approval_token":"v1","_meta":{"a":1}})"), "x");
  EXPECT_EQ(statement_of(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":)"
                         R"({"name":"kova_execute","arguments":{"sql":"delete from t"}}})"
                         "\n"),
            "delete from t");
  EXPECT_EQ(statement_of(R"({"params":{"name":"kova\u005fexecute","arguments":{"sql":"x"}}})"),
            "x");
  // Escapes that only look like a NUL.
  EXPECT_EQ(statement_of(R"({"sql":"\\u0000"})"), "\\u0000");
}

TEST(StatementSource, TakesAStatementOf32768Bytes) {
  const std::string sql(32768, 'x');
  EXPECT_EQ(statement_of(R"({"sql":")" + sql + R"("})"), sql);
  EXPECT_EQ(refusal_of(R"({"sql":")" + sql + R"(x"})"),
            "kova_execute requires bounded SQL and rejects unknown arguments");
}

TEST(StatementSource, RefusesEverythingElse) {
  struct Case {
    std::string text;
    std::string message;
  };
  const std::string arguments = "kova_execute requires bounded SQL and rejects unknown arguments";
  const Case cases[] = {
      {std::string("delete\nfr\0m t", 13), "a NUL byte at line 2, column 3"},
      {"delete\nfrom \xFFt", "the text is not UTF-8 at line 2, column 6"},
      {"{\"sql\":\"\xC3\"}", "the text is not UTF-8 at line 1, column 9"},
      {R"({"sql":"delete from t\u0000 where a = 1"})", "the statement holds a NUL (\\u0000)"},
      {R"({"sql":"\\\u0000"})", "the statement holds a NUL (\\u0000)"},
      {R"({"sql":"x")", "the message is not valid JSON"},
      {R"({"sql":"x","sql":"y"})", "the message has two members of the same key"},
      {R"({"sql":"x","s\u0071l":"y"})", "the message has two members of the same key"},
      {R"({"sql":1})", arguments},
      {R"({"sql":"x","other":1})", arguments},
      {R"({"s\u0071l":"x"})", "the message holds no statement"},
      {R"({"jsonrpc":"2.0","id":1,"result":{"structuredContent":{"operation_digest":"00"}}})",
       "the server's answer holds no statement: its digest goes into --digest"},
      {R"({"structuredContent":{}})",
       "the server's answer holds no statement: its digest goes into --digest"},
      {R"({"approval_required":true,"operation_type":"UPDATE","operation_digest":"00"})",
       "the server's answer holds no statement: its digest goes into --digest"},
      {R"({})", "the message holds no statement"},
      {R"({"params":{"name":"kova_query","arguments":{"sql":"x"}}})",
       "the message does not call kova_execute"},
      {R"({"method":"tools/list","params":{"name":"kova_execute","arguments":{"sql":"x"}}})",
       "the message does not call kova_execute"},
      {R"({"method":1,"params":{"name":"kova_execute","arguments":{"sql":"x"}}})",
       "the message does not call kova_execute"},
      {R"({"params":{"name":"kova_execute"}})", arguments},
      {R"({"params":{"name":"kova_execute","arguments":[]}})", arguments},
  };
  for (const Case& one : cases) EXPECT_EQ(refusal_of(one.text), one.message) << one.text;
}

}  // namespace
}  // namespace kova::admin

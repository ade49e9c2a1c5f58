// The lexical screen of kova_query, and the terminator of a statement.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "db/statement.h"
#include "policy/quick_select.h"
#include "support/guard_page.h"
#include "tools/query_tool.h"
#include "unit/policy/letters.h"

namespace kova::testing {
namespace {

constexpr const char* kForbiddenWords[] = {
    "INTO",    "INSERT",   "UPDATE",      "DELETE", "DROP",   "ALTER",  "CREATE", "EXEC",
    "EXECUTE", "CALL",     "RUN",         "LOAD",   "IMPORT", "EXPORT", "GRANT",  "REVOKE",
    "COMMIT",  "ROLLBACK", "TRANSACTION", "LOCK",   "UNLOCK", "SET",    "USE",    "LOGIN",
    "LOGOUT",  "SYNC",     "PROVIDER",    "ATTACH", "DETACH"};

bool passes(std::string_view sql) {
  const GuardedText after(sql);
  const GuardedText before(sql, GuardSide::kBefore);
  const bool accepted = quick_select_check(after.view());
  EXPECT_EQ(quick_select_check(before.view()), accepted) << sql;
  return accepted;
}

TEST(QuickSelectCheck, AcceptsOneSelect) {
  for (const std::string_view sql : {
           std::string_view("SELECT"),
           std::string_view("select 1"),
           std::string_view("SeLeCt a FROM t"),
           std::string_view("SELECT a FROM t;"),
           std::string_view("SELECT a FROM t; \t\n\v\f\r"),
           std::string_view(" \t\n\v\f\rSELECT a"),
           std::string_view("SELECT 'it''s; --' FROM t"),
           std::string_view("SELECT '/* # DROP' FROM t"),
           std::string_view("SELECT 'a'';' FROM t"),
           std::string_view("SELECT settings, users, loads, calls FROM t"),
           std::string_view("SELECT SET_1, _SET, xSET FROM t"),
           std::string_view("SELECT \"a\" FROM t"),
           std::string_view("SELECT a-b, a - -b, a/b FROM t"),
           std::string_view("SELECT a FROM t, u WHERE (x)"),
           std::string_view("SELECT a FROM t UNION SELECT b FROM u"),
           // What may stand before the first word.
           std::string_view("9SELECT 1"),
           std::string_view("(SELECT 1)"),
           std::string_view("'DROP' SELECT 1"),
           std::string_view("\"SELECT\" 1"),
           std::string_view("*,= SELECT 1"),
           // Bytes that are no business of this screen.
           std::string_view("SELECT caf\xC3\xA9 FROM t"),
           std::string_view("SELECT a\0b FROM t", 17),
           std::string_view("SELECT a FROM t -"),
           std::string_view("SELECT a FROM t /"),
           std::string_view("SELECT \"it's\" , 'x' FROM \"o'clock\""),
           std::string_view("SELECT \"'\"; DELETE FROM T; SELECT \"'\""),
       })
    EXPECT_TRUE(passes(sql)) << sql;
}

TEST(QuickSelectCheck, RefusesEverythingElse) {
  for (const std::string_view sql : {
           std::string_view(""),
           std::string_view(" "),
           std::string_view(";"),
           std::string_view("1"),
           std::string_view("'SELECT'"),
           std::string_view("SELECTS 1"),
           std::string_view("_SELECT 1"),
           std::string_view("WITH x AS (SELECT 1) SELECT * FROM x"),
           std::string_view("EXPLAIN SELECT 1"),
           std::string_view("x SELECT 1"),
           std::string_view("; SELECT 1"),
           std::string_view("SELECT a FROM t; SELECT b FROM u"),
           std::string_view("SELECT 1;;"),
           std::string_view("SELECT 1;1"),
           std::string_view("SELECT 1; -- x"),
           std::string_view("SELECT 1;'"),
           std::string_view("SELECT 1;\0", 10),
           std::string_view("SELECT 1;\xC2\xA0"),
           std::string_view("SELECT \"a;b\" FROM t"),
           std::string_view("SELECT a FROM t -- x"),
           std::string_view("SELECT a FROM t --"),
           std::string_view("SELECT a /* x */ FROM t"),
           std::string_view("SELECT a /*! x */ FROM t"),
           std::string_view("SELECT a FROM t # x"),
           std::string_view("SELECT \"a--b\" FROM t"),
           std::string_view("SELECT \"#\" FROM t"),
           std::string_view("#"),
           std::string_view("-- SELECT 1"),
           std::string_view("SELECT 'abc"),
           std::string_view("SELECT 'abc''"),
           std::string_view("SELECT '''"),
           std::string_view("SELECT '"),
           std::string_view("SELECT \"it's\" FROM t"),
           std::string_view("SELECT \"''\"; DELETE FROM T"),
           std::string_view("SELECT a FROM t WHERE SET = 1"),
           std::string_view("SELECT \"SET\" FROM t"),
           std::string_view("SELECT [set] FROM t"),
           std::string_view("SELECT 1 9DROP"),
           std::string_view("SELECT a.delete FROM t"),
           std::string_view("SELECT a INTO b"),
       })
    EXPECT_FALSE(passes(sql)) << sql;
}

TEST(QuickSelectCheck, RefusesEveryForbiddenWordAnywhere) {
  EXPECT_EQ(std::size(kForbiddenWords), 29U);
  for (const std::string word : kForbiddenWords) {
    SCOPED_TRACE(word);
    for (const std::string& spelling : {word, lower(word), word[0] + lower(word.substr(1))}) {
      EXPECT_FALSE(passes("SELECT " + spelling));
      EXPECT_FALSE(passes("SELECT a FROM t " + spelling + " b"));
      EXPECT_FALSE(passes("SELECT \"" + spelling + "\" FROM t"));
      EXPECT_FALSE(passes("SELECT 1" + spelling));
      EXPECT_FALSE(passes("SELECT x." + spelling + "()"));
      EXPECT_FALSE(passes(spelling + " SELECT"));
      EXPECT_TRUE(passes("SELECT '" + spelling + "' FROM t"));
      EXPECT_TRUE(passes("SELECT " + spelling + "X FROM t"));
      EXPECT_TRUE(passes("SELECT X" + spelling + " FROM t"));
      EXPECT_TRUE(passes("SELECT " + spelling + "_ FROM t"));
      EXPECT_TRUE(passes("SELECT " + spelling + "1 FROM t"));
      EXPECT_TRUE(passes("SELECT _" + spelling + " FROM t"));
    }
  }
}

TEST(QuickSelectCheck, ComparesWordsByTheirFirst63Bytes) {
  const std::string long_word(5000, 'w');
  EXPECT_TRUE(passes("SELECT " + long_word));
  EXPECT_FALSE(passes(long_word + " SELECT"));
  EXPECT_FALSE(passes("SELECT " + long_word + " DROP"));
}

TEST(QuickSelectCheck, HasUpTo32768Bytes) {
  const auto of_size = [](std::size_t size) { return "SELECT " + std::string(size - 7, '1'); };
  EXPECT_TRUE(passes(of_size(32768)));
  EXPECT_FALSE(passes(of_size(32769)));
}

// No truncation reads beyond its end, and only whole statements pass.
TEST(QuickSelectCheck, StaysWithinEveryTruncation) {
  const std::string nasty = "SELECT 'it''s', \"x\" FROM t WHERE a = '--' ; ";
  for (std::size_t size = 0; size <= nasty.size(); ++size) {
    const std::string_view text = std::string_view(nasty).substr(0, size);
    int quotes = 0;
    for (const char c : text) quotes += c == '\'';
    EXPECT_EQ(passes(text), size >= 6 && quotes % 2 == 0) << text;
  }
  for (const std::string_view ending : {"-", "/", "--", "/*", "#", "'", "''", "'''", ";", ";x"}) {
    passes("SELECT a " + std::string(ending));
    passes(ending);
  }
}

std::string terminated(std::string_view sql) {
  const GuardedBuffer buffer(kStatementLimit + 1);
  std::memset(buffer.data(), 'z', buffer.size());
  TextOut(buffer.data(), buffer.size()).copy_cut(sql);
  return terminate_statement(buffer.data()) ? buffer.data() : "refused";
}

TEST(TerminateStatement, AddsASemicolonAfterTheLastByteThatIsNoSpace) {
  struct Row {
    const char* sql;
    const char* sent;
  };
  constexpr Row kRows[] = {
      {"select * from t", "select * from t;"},
      {"select 1;  ", "select 1;  "},
      {"select 1;", "select 1;"},
      {"select 1; \t\n\v\f\r", "select 1; \t\n\v\f\r"},
      {"select 1 \t\n\v\f\r", "select 1;"},
      {" select 1 ", " select 1;"},
      {"select 1 ;", "select 1 ;"},
      {"select ';'", "select ';';"},
      {"x", "x;"},
  };
  for (const Row& row : kRows) EXPECT_EQ(terminated(row.sql), row.sent) << row.sql;
}

TEST(TerminateStatement, KeepsWithin32768Bytes) {
  const std::string text(32767, 'x');
  EXPECT_EQ(terminated(text), text + ";");
  EXPECT_EQ(terminated(text + ";"), text + ";");
  EXPECT_EQ(terminated(text + " "), text + ";");
  EXPECT_EQ(terminated(text + "x"), "refused");
  EXPECT_EQ(terminated(text.substr(1) + "; "), text.substr(1) + "; ");
}

}  // namespace
}  // namespace kova::testing

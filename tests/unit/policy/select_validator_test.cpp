// The policy's check of a SELECT: one row per case, the order of the passes, and what passes
// although a reader may be surprised.
#include "policy/select_validator.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/guard_page.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

constexpr std::string_view kAccepted = "";
constexpr std::string_view kInvalid = "MCP policy is invalid";
constexpr std::string_view kReadsOff = "read tools are disabled by policy";
constexpr std::string_view kSelectComment = "comments are not allowed in policy SQL";
constexpr std::string_view kUnbalanced = "unbalanced SQL parentheses";
constexpr std::string_view kUnterminated = "unterminated SQL literal or parentheses";
constexpr std::string_view kDenied = "column is denied by MCP policy";
constexpr std::string_view kSelectOnly = "policy accepts SELECT only";
constexpr std::string_view kSubquery =
    "subqueries and UNION are not enabled by this policy version";
constexpr std::string_view kTable = "table is not allowed by MCP policy";
constexpr std::string_view kWildcard = "wildcard projection is denied when columns are restricted";

// T and U may be read.
std::unique_ptr<McpPolicy> policy_denying(std::initializer_list<std::string_view> columns) {
  auto policy = loaded_policy();
  fill(policy->allowed_tables, {"t", "U"});
  fill(policy->denied_columns, columns);
  return policy;
}

// The message of the refusal, or nothing.
std::string verdict(const McpPolicy& policy, std::string_view sql) {
  const GuardedText after(sql);
  const GuardedText before(sql, GuardSide::kBefore);
  char message[256] = "";
  char message_before[256] = "";
  const bool accepted = policy_validate_select(policy, after.view(), message);
  EXPECT_EQ(policy_validate_select(policy, before.view(), message_before), accepted);
  EXPECT_STREQ(message, message_before);
  EXPECT_EQ(accepted, message[0] == '\0') << sql;
  return message;
}

struct SelectRow {
  std::string_view sql;
  std::string_view message;
};

template <std::size_t N>
void expect_verdicts(const McpPolicy& policy, const SelectRow (&rows)[N]) {
  for (const SelectRow& row : rows) EXPECT_EQ(verdict(policy, row.sql), row.message) << row.sql;
}

TEST(SelectValidator, AnInvalidPolicyRefusesEverything) {
  const auto policy = policy_denying({});
  policy->valid = false;
  policy->reads_enabled = false;
  expect_verdicts(*policy, {{"SELECT a FROM t", kInvalid}, {"", kInvalid}, {"--", kInvalid}});
  policy->configured = false;
  expect_verdicts(*policy, {{"SELECT a FROM t", kInvalid}});
}

TEST(SelectValidator, WithoutAPolicyFileEveryTextPasses) {
  const auto policy = no_policy();
  expect_verdicts(
      *policy,
      {{"", kAccepted}, {"DROP TABLE t -- x", kAccepted}, {"'", kAccepted}, {"))", kAccepted}});
  policy->reads_enabled = false;
  expect_verdicts(*policy, {{"SELECT ssn FROM secret", kAccepted}});
}

TEST(SelectValidator, DisabledReadsComeBeforeTheText) {
  const auto policy = policy_denying({});
  policy->reads_enabled = false;
  expect_verdicts(*policy, {{"SELECT a FROM t", kReadsOff}, {"--", kReadsOff}, {"", kReadsOff}});
}

TEST(SelectValidator, PlainSelectsPass) {
  const auto policy = policy_denying({});
  expect_verdicts(*policy,
                  {
                      {"select a from t", kAccepted},
                      {"SELECT a FROM T", kAccepted},
                      {"SELECT 1", kAccepted},
                      {"SELECT * FROM t", kAccepted},
                      {"SELECT COUNT(*) FROM t", kAccepted},
                      {"SELECT", kAccepted},
                      {"SELECT a FROM t WHERE b = 1 GROUP BY c HAVING d > 2 ORDER BY e", kAccepted},
                      {"SELECT a FROM t JOIN u ON t.x = u.x", kAccepted},
                      {"SELECT a FROM t INNER JOIN u ON t.x = u.x", kAccepted},
                      {"SELECT a FROM t x LEFT OUTER JOIN u y ON x.i = y.i", kAccepted},
                      {"SELECT a FROM t AS x", kAccepted},
                      {"SELECT a FROM \"t\"", kAccepted},
                      {"SELECT a FROM [t]", kAccepted},
                      {"\tSELECT\va\fFROM\r\nt;", kAccepted},
                  });
}

TEST(SelectValidator, CommentsAreRefused) {
  const auto policy = policy_denying({});
  expect_verdicts(*policy, {
                               {"SELECT a FROM t -- note", kSelectComment},
                               {"SELECT a FROM t --", kSelectComment},
                               {"SELECT a /* x */ FROM t", kSelectComment},
                               {"SELECT a FROM t /*", kSelectComment},
                               {"SELECT a /*!50000 x */ FROM t", kSelectComment},
                               {"SELECT a#b FROM t", kSelectComment},
                               {"#", kSelectComment},
                               {"--", kSelectComment},
                               {"SELECT \"a--b\" FROM t", kSelectComment},
                               {"SELECT \"a#b\" FROM t", kSelectComment},
                               {"SELECT 1--1", kSelectComment},
                               {"SELECT 1 - -1", kAccepted},
                               {"SELECT 1 / * 2", kAccepted},
                               {"SELECT 'a -- b' FROM t", kAccepted},
                               {"SELECT '/*', '#', 'it''s --' FROM t", kAccepted},
                               {"SELECT a FROM t -", kAccepted},
                               {"SELECT a FROM t /", kAccepted},
                           });
}

TEST(SelectValidator, ParenthesesAndLiteralsAreBalanced) {
  const auto policy = policy_denying({});
  expect_verdicts(*policy, {
                               {"SELECT a) FROM t", kUnbalanced},
                               {")", kUnbalanced},
                               {"SELECT (a)) FROM t", kUnbalanced},
                               {"SELECT )a( FROM t", kUnbalanced},
                               {"SELECT (a FROM t", kUnterminated},
                               {"(", kUnterminated},
                               {"SELECT ((a) FROM t", kUnterminated},
                               {"SELECT 'a FROM t", kUnterminated},
                               {"SELECT 'a'' FROM t", kUnterminated},
                               {"'", kUnterminated},
                               {"SELECT (a, ')' FROM t", kUnterminated},
                               {"SELECT ('(') FROM t", kAccepted},
                               {"SELECT ((a)) FROM t", kAccepted},
                               {"SELECT 'it''s' FROM t", kAccepted},
                               {"SELECT '' FROM t", kAccepted},
                               // They count inside double quotes too.
                               {"SELECT \")\" FROM t", kUnbalanced},
                               {"SELECT \"(\" FROM t", kUnterminated},
                               {"SELECT \"a'b\" FROM t", kUnterminated},
                           });
}

TEST(SelectValidator, DeniedColumnsMayNotStandAnywhere) {
  const auto policy = policy_denying({"ssn", "Salary"});
  expect_verdicts(*policy, {
                               {"SELECT SSN FROM t", kDenied},
                               {"SELECT ssn FROM t", kDenied},
                               {"SELECT t.SSN FROM t", kDenied},
                               {"SELECT \"sSn\" FROM t", kDenied},
                               {"SELECT a AS salary FROM t", kDenied},
                               {"SELECT a FROM ssn", kDenied},
                               {"SELECT a FROM t ssn", kDenied},
                               {"SELECT a FROM t WHERE ssn = 1", kDenied},
                               {"SELECT a FROM t ORDER BY SALARY", kDenied},
                               {"SELECT 9ssn FROM t", kDenied},
                               {"ssn", kDenied},
                               {"SELECT name FROM t WHERE x = 'ssn'", kAccepted},
                               {"SELECT ssn2, xssn, ss_n FROM t", kAccepted},
                               {"SELECT name FROM t WHERE x = 'it''s ssn'", kAccepted},
                           });
}

TEST(SelectValidator, DeniedNamesCoverKeywordsAndTables) {
  const auto keywords = policy_denying({"select", "WHERE", "t"});
  expect_verdicts(*keywords, {{"SELECT 1", kDenied},
                              {"a WHERE b", kDenied},
                              {"FROM t", kDenied},
                              {"DELETE", kSelectOnly}});
}

TEST(SelectValidator, DeniedNamesCompareBy63Characters) {
  const std::string name(63, 'c');
  const auto policy = policy_denying({name});
  EXPECT_EQ(verdict(*policy, "SELECT " + name + " FROM t"), kDenied);
  EXPECT_EQ(verdict(*policy, "SELECT " + name + "tail FROM t"), kDenied);
  EXPECT_EQ(verdict(*policy, "SELECT " + name.substr(1) + " FROM t"), kAccepted);
}

TEST(SelectValidator, OnlyOneSelect) {
  const auto policy = policy_denying({});
  expect_verdicts(*policy, {
                               {"", kAccepted},
                               {"  1 + 1", kAccepted},
                               {"WITH x AS (SELECT 1) SELECT * FROM x", kSelectOnly},
                               {"DELETE FROM t", kSelectOnly},
                               {"SELECTS a FROM t", kSelectOnly},
                               {"_SELECT a", kSelectOnly},
                               {"EXPLAIN SELECT a FROM t", kSelectOnly},
                               {"9SELECT 1", kAccepted},
                               {"(SELECT 1)", kAccepted},
                               {"'x' SELECT 1", kAccepted},
                               {"\"SELECT\" 1", kAccepted},
                               {"SELECT a FROM t WHERE b IN (SELECT x FROM u)", kSubquery},
                               {"SELECT 1 UNION SELECT 2", kSubquery},
                               {"SELECT 1 union ALL VALUES (2)", kSubquery},
                               {"SELECT select", kSubquery},
                               {"SELECT \"UNION\" FROM t", kSubquery},
                               {"SELECT 'UNION SELECT' FROM t", kAccepted},
                               {"SELECT unions FROM t", kAccepted},
                               {"SELECT 1 EXCEPT VALUES (2)", kAccepted},
                           });
}

TEST(SelectValidator, TablesMustBeAllowed) {
  const auto policy = policy_denying({});
  expect_verdicts(*policy, {
                               {"SELECT a FROM x", kTable},
                               {"SELECT a FROM t JOIN x ON 1 = 1", kTable},
                               {"SELECT a FROM tt", kTable},
                               {"SELECT a FROM \"x\"", kTable},
                               {"SELECT a FROM x.t", kTable},
                               {"SELECT a FROM t AS y, x AS z", kTable},
                               {"SELECT a FROM t y, x z", kTable},
                               {"SELECT a FROM t y \t\v\f\r\n, x", kTable},
                               {"SELECT a FROM t y, u z, x", kTable},
                               {"SELECT a FROM t ON b, x", kTable},
                               {"SELECT a JOIN x", kTable},
                               {"SELECT a FROM (x)", kTable},
                               {"SELECT a FROM 'lit' x", kTable},
                               {"SELECT a FROM 1x", kTable},
                               {"SELECT a FROM t; DELETE FROM x", kTable},
                               {"SELECT a FROM t WHERE b = 1 JOIN x", kTable},
                               {"SELECT EXTRACT(YEAR FROM d) FROM t", kTable},
                               {"SELECT a FROM AS", kTable},
                               {"SELECT a FROM t y, LIMIT 1", kTable},
                               {"SELECT a FROM t y, u z", kAccepted},
                               {"SELECT a FROM t WHERE x, y", kAccepted},
                               {"SELECT x, y FROM t", kAccepted},
                               {"SELECT a FROM t; DELETE FROM u", kAccepted},
                           });
}

TEST(SelectValidator, NoAllowedTablesAllowNone) {
  const auto policy = policy_denying({});
  policy->allowed_tables.count = 0;
  expect_verdicts(*policy, {{"SELECT a FROM t", kTable}, {"SELECT 1", kAccepted}});
}

TEST(SelectValidator, TablesCompareBy63Characters) {
  const std::string name(63, 't');
  const auto policy = policy_denying({});
  fill(policy->allowed_tables, {name});
  EXPECT_EQ(verdict(*policy, "SELECT a FROM " + name), kAccepted);
  EXPECT_EQ(verdict(*policy, "SELECT a FROM " + name.substr(1)), kTable);
  EXPECT_EQ(verdict(*policy, "SELECT a FROM " + name + "_other"), kAccepted);
  // The comma is looked for after the uncut word.
  EXPECT_EQ(verdict(*policy, "SELECT a FROM " + name + " " + name + "_alias, x"), kTable);
}

// What the rules accept although a reader may be surprised; docs/security-model.md lists it.
TEST(SelectValidator, SurprisingAccepts) {
  const auto policy = policy_denying({});
  expect_verdicts(*policy, {
                               // The table's own comma puts nothing into a table's place.
                               {"SELECT a FROM t, x", kAccepted},
                               {"SELECT a FROM t , x , y", kTable},
                               {"SELECT a FROM t, x WHERE 1 = 1", kAccepted},
                               // Only white space may stand between an alias and the comma.
                               {"SELECT a FROM t \"y\", x", kAccepted},
                               {"SELECT a FROM t y(z), x", kAccepted},
                               {"SELECT a FROM t (y), x", kAccepted},
                               {"SELECT a FROM t y 'l', x", kAccepted},
                               {"SELECT a FROM t y 1, x", kAccepted},
                               // The first part of a qualified name is the one that is looked up.
                               {"SELECT a FROM t.x", kAccepted},
                               {"SELECT a FROM t.x.y", kAccepted},
                               // These words win over an expected table.
                               {"SELECT a FROM", kAccepted},
                               {"SELECT a FROM WHERE x", kAccepted},
                               {"SELECT a FROM FROM t", kAccepted},
                               {"SELECT a FROM JOIN t", kAccepted},
                               {"SELECT a FROM GROUP x", kAccepted},
                               {"SELECT a FROM ORDER x", kAccepted},
                               {"SELECT a FROM HAVING x", kAccepted},
                               {"SELECT a FROM FROM x", kTable},
                               {"SELECT a FROM SELECT", kSubquery},
                               {"SELECT a FROM UNION", kSubquery},
                               // Other words do not end a table list.
                               {"SELECT a FROM t LIMIT 1, x", kAccepted},
                               {"SELECT a FROM t LIMIT x, y", kTable},
                               // Text between apostrophes inside double quotes is a literal.
                               {"SELECT \"'x' FROM hidden'\" FROM t", kUnterminated},
                               {"SELECT \"'\", a FROM hidden, \"'\" FROM t", kAccepted},
                               {"SELECT \"'\"; DELETE FROM hidden; SELECT \"'\"", kAccepted},
                               {"SELECT \"'\"; DELETE FROM hidden; SELECT \"", kUnterminated},
                           });
}

TEST(SelectValidator, WildcardsBeforeFromWithDeniedColumns) {
  const auto policy = policy_denying({"ssn"});
  expect_verdicts(*policy, {
                               {"SELECT * FROM t", kWildcard},
                               {"SELECT t.* FROM t", kWildcard},
                               {"SELECT COUNT(*) FROM t", kWildcard},
                               {"SELECT a*b FROM t", kWildcard},
                               {"SELECT *", kWildcard},
                               {"SELECT 2*3", kWildcard},
                               {"SELECT \"*\" FROM t", kWildcard},
                               {"*", kWildcard},
                               {"SELECT '*' FROM t", kAccepted},
                               {"SELECT 'it''s *' FROM t", kAccepted},
                               {"SELECT a FROM t WHERE b = '*'", kAccepted},
                               {"SELECT a FROM t WHERE b = c * 2", kAccepted},
                               {"SELECT a from t WHERE b * 2 > 1", kAccepted},
                               {"SELECT a FROM", kAccepted},
                               {"SELECT a FrOm t, *", kAccepted},
                               {"SELECT a FROM*", kAccepted},
                               {"SELECT a FROM\xC3*", kAccepted},
                               // Whatever stands before the FROM.
                               {"SELECT xfrom, *", kAccepted},
                               {"SELECT 9FROM, * FROM t", kAccepted},
                               {"SELECT a_from * 2", kAccepted},
                               // What follows must end the word.
                               {"SELECT from_x, *", kWildcard},
                               {"SELECT a fromx, *", kWildcard},
                               {"SELECT a fro, *", kWildcard},
                               {"SELECT a from9, *", kWildcard},
                               {"SELECT xfrom_x, *", kWildcard},
                               {"SELECT 'FROM', * FROM t", kWildcard},
                           });
}

TEST(SelectValidator, WildcardsPassWithoutDeniedColumns) {
  const auto policy = policy_denying({});
  expect_verdicts(*policy, {{"SELECT *", kAccepted}, {"SELECT t.*, * FROM t", kAccepted}});
}

// Each text breaks one more, earlier check.
TEST(SelectValidator, ThePassesStandInOrder) {
  const auto policy = policy_denying({"ssn"});
  expect_verdicts(*policy, {
                               {"SELECT * , a FROM x", kTable},
                               {"SELECT * FROM x UNION", kTable},
                               {"SELECT * UNION FROM x", kSubquery},
                               {"DROP * UNION FROM x", kSelectOnly},
                               {"DROP * UNION FROM x ssn", kDenied},
                               {"DROP * UNION FROM x ssn (", kUnterminated},
                               {"DROP * UNION FROM x ssn )", kUnbalanced},
                               {"DROP * UNION FROM x ssn ( #", kSelectComment},
                               {"DROP * # )", kSelectComment},
                               {"DROP * ) #", kUnbalanced},
                               {"SELECT '*", kUnterminated},
                               {"ssn 'x", kUnterminated},
                               {"SELECT * FROM t", kWildcard},
                               {"SELECT ssn, * FROM t", kDenied},
                           });
}

// An empty text has no word, so no pass finds anything wrong with it.
TEST(SelectValidator, AnEmptyTextPasses) {
  expect_verdicts(*policy_denying({"ssn"}), {{"", kAccepted}, {" ", kAccepted}});
}

TEST(SelectValidator, AMessageIsCutToItsRoom) {
  const auto policy = policy_denying({});
  char message[10];
  EXPECT_FALSE(policy_validate_select(*policy, "DROP", message));
  EXPECT_STREQ(message, "policy ac");
}

// Every truncation of texts that end within a token, against unreadable memory on either side.
TEST(SelectValidator, StaysWithinEveryTruncation) {
  const auto policy = policy_denying({"ssn"});
  for (const std::string& nasty :
       {std::string("SELECT a, 'it''s' FROM t x , u \t, t WHERE b = '*' -"),
        std::string("SELECT (a) FROM t /* x"), std::string("SELECT a FRO"),
        "SELECT a FROM t " + std::string(80, 'y') + " , u"}) {
    for (std::size_t size = 0; size <= nasty.size(); ++size)
      verdict(*policy, std::string_view(nasty).substr(0, size));
  }
}

}  // namespace
}  // namespace kova::testing

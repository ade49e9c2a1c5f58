// What the checkers of SQL tell beside their message: which check refused, and at which byte.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "policy/quick_select.h"
#include "policy/select_validator.h"
#include "policy/sql_words.h"
#include "policy/write_classifier.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

/// "^" stands before the byte that is to blame; without one there is no place.
struct TracedRow {
  std::string_view marked;
  std::string_view check;
};

struct Marked {
  explicit Marked(std::string_view marked) : sql(marked), offset(sql.find('^')) {
    if (offset != std::string::npos) sql.erase(offset, 1);
  }
  std::string sql;
  std::size_t offset;
};

constexpr TracedRow kScreen[] = {
    {"", "screen-size"},
    {"SELECT 'a''' ^'b", "screen-open-literal"},
    {"SELECT 1^; x", "screen-one-statement"},
    {"^;", "screen-one-statement"},
    {"SELECT 1 ^-- x", "screen-comment"},
    {"SELECT 1 ^/* x", "screen-comment"},
    {"SELECT a^#b", "screen-comment"},
    {" ^with x", "screen-select-only"},
    {"1 + 2", "screen-select-only"},
    {"SELECT a, 9^drop", "screen-forbidden-word"},
};

TEST(CheckTrace, TheScreen) {
  for (const TracedRow& row : kScreen) {
    const Marked marked(row.marked);
    CheckTrace trace;
    EXPECT_FALSE(quick_select_check(marked.sql, &trace)) << row.marked;
    EXPECT_EQ(trace.check, row.check) << row.marked;
    EXPECT_EQ(trace.offset, marked.offset) << row.marked;
  }
}

constexpr TracedRow kSelects[] = {
    {"SELECT ^--", "select-comment"},
    {"SELECT (1)^)", "select-parentheses"},
    {"SELECT (1), ^((2)", "select-parentheses"},
    {"SELECT ^'x", "select-open-literal"},
    {"SELECT 'ssn', t.^ssn FROM t", "denied_columns"},
    {"^with x", "select-only"},
    {"SELECT a FROM t ^union", "select-one"},
    {"SELECT (^select 1)", "select-one"},
    {"SELECT a FROM t x, ^h", "allowed_tables"},
    {"SELECT a^*b FROM t", "select-wildcard"},
};

TEST(CheckTrace, TheSelectCheck) {
  const auto policy = loaded_policy();
  fill(policy->allowed_tables, {"T"});
  fill(policy->denied_columns, {"SSN"});
  for (const TracedRow& row : kSelects) {
    const Marked marked(row.marked);
    char message[256] = "";
    CheckTrace trace;
    EXPECT_FALSE(policy_validate_select(*policy, marked.sql, message, &trace)) << row.marked;
    EXPECT_EQ(trace.check, row.check) << row.marked;
    EXPECT_EQ(trace.offset, marked.offset) << row.marked;
    EXPECT_STRNE(message, "");
  }
}

constexpr TracedRow kWrites[] = {
    {"", "write-size"},
    {"UPDATE t SET a = 1 ^# x", "write-comment"},
    {"UPDATE t^; x", "write-one-statement"},
    {"UPDATE t SET a = ^'x", "write-open-literal"},
    {"UPDATE", "write-shape"},
    {" ^merge into t", "write-shape"},
    {"insert ^t values (1)", "write-shape"},
    {"insert into", "write-shape"},
    {"delete ^t where a = 1", "write-shape"},
    {"delete from", "write-shape"},
    {"^merge from t", "write-shape"},
    {"\n^delete  from t", "write_types"},
    {"insert\n into \"^hidden\"", "write_tables"},
    {"UPDATE ^hidden SET a = 1", "write_tables"},
    {"UPDATE t  SET a = 'drop', b =  ^Drop", "write-prohibited-word"},
};

TEST(CheckTrace, TheWriteCheck) {
  const auto policy = loaded_policy();
  policy->writes_enabled = true;
  policy->write_type_mask = kInsert | kUpdate;
  fill(policy->write_tables, {"T"});
  const auto write = std::make_unique<ClassifiedWrite>();
  for (const TracedRow& row : kWrites) {
    const Marked marked(row.marked);
    char message[256] = "";
    CheckTrace trace;
    EXPECT_FALSE(write_classify(*policy, marked.sql, *write, message, &trace)) << row.marked;
    EXPECT_EQ(trace.check, row.check) << row.marked;
    EXPECT_EQ(trace.offset, marked.offset) << row.marked;
  }
}

TEST(CheckTrace, WritesThatThePolicyDisables) {
  const auto policy = loaded_policy();
  const auto write = std::make_unique<ClassifiedWrite>();
  char message[256] = "";
  CheckTrace trace;
  EXPECT_FALSE(write_classify(*policy, "DELETE FROM T", *write, message, &trace));
  EXPECT_EQ(trace.check, "writes_enabled");
  EXPECT_EQ(trace.offset, CheckTrace::kNowhere);
}

TEST(CheckTrace, ALongWordBeginsWhereItBegins) {
  const std::string sql = "12a" + std::string(200, 'b') + ", c";
  std::string_view rest = sql;
  char text[kWordCapacity];
  TextOut word(text);
  ASSERT_TRUE(policy_next_word(rest, word));
  EXPECT_EQ(taken_word_begin(sql, rest), 2U);
  ASSERT_TRUE(policy_next_word(rest, word));
  EXPECT_EQ(taken_word_begin(sql, rest), sql.size() - 1);
}

}  // namespace
}  // namespace kova::testing

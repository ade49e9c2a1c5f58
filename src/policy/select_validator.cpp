#include "policy/select_validator.h"

#include <algorithm>
#include <cstddef>

#include "base/ascii.h"
#include "base/text.h"
#include "policy/predicates.h"
#include "policy/sql_words.h"

namespace kova {

namespace {

constexpr std::string_view kOpenAtEnd = "unterminated SQL literal or parentheses";

/// Comments, parentheses and open literals.
bool check_lexical(std::string_view sql, TextOut message, CheckTrace* trace) {
  std::size_t depth = 0;
  std::size_t outermost = 0;
  for (std::size_t i = 0; i < sql.size();) {
    if (sql[i] == '\'') {
      const std::size_t open = i;
      i = skip_literal(sql, i);
      if (i != sql.npos) continue;
      trace_check(trace, "select-open-literal", open);
      return refuse(message, kOpenAtEnd);
    }
    if (begins_comment(sql, i)) {
      trace_check(trace, "select-comment", i);
      return refuse(message, "comments are not allowed in policy SQL");
    }
    if (sql[i] == '(' && depth++ == 0) outermost = i;
    if (sql[i] == ')' && depth-- == 0) {
      trace_check(trace, "select-parentheses", i);
      return refuse(message, "unbalanced SQL parentheses");
    }
    ++i;
  }
  if (depth == 0) return true;
  trace_check(trace, "select-parentheses", outermost);
  return refuse(message, kOpenAtEnd);
}

/// Every word counts, whatever its role: an alias or a table of a denied column's name is refused
/// too.
bool check_denied_words(const McpPolicy& policy, std::string_view sql, TextOut message,
                        CheckTrace* trace) {
  char text[kWordCapacity];
  TextOut word(text);
  for (std::string_view rest = sql; policy_next_word(rest, word);) {
    if (!policy_column_allowed(policy, word.view())) {
      trace_check(trace, "denied_columns", taken_word_begin(sql, rest));
      return refuse(message, "column is denied by MCP policy");
    }
  }
  return true;
}

bool comma_follows(std::string_view rest) {
  const auto next = std::find_if_not(rest.begin(), rest.end(), is_space);
  return next != rest.end() && *next == ',';
}

/// A text without a word passes.
bool check_first_word(std::string_view sql, TextOut message, CheckTrace* trace) {
  char text[kWordCapacity];
  TextOut word(text);
  std::string_view rest = sql;
  if (!policy_next_word(rest, word) || word.view() == "SELECT") return true;
  trace_check(trace, "select-only", taken_word_begin(sql, rest));
  return refuse(message, "policy accepts SELECT only");
}

/// One SELECT, and every name in a table's place allowed. Only a comma after a word that is no
/// table (an alias, say) puts the next word into a table's place.
bool check_structure(const McpPolicy& policy, std::string_view sql, TextOut message,
                     CheckTrace* trace) {
  char text[kWordCapacity];
  TextOut word(text);
  bool in_table_list = false;
  bool expect_table = false;
  std::string_view rest = sql;
  for (bool first_word = true; policy_next_word(rest, word); first_word = false) {
    const std::string_view name = word.view();
    if (first_word) continue;
    if (name == "SELECT" || name == "UNION") {
      trace_check(trace, "select-one", taken_word_begin(sql, rest));
      return refuse(message, "subqueries and UNION are not enabled by this policy version");
    }
    if (name == "FROM" || name == "JOIN") {
      in_table_list = expect_table = true;
    } else if (name == "WHERE" || name == "GROUP" || name == "ORDER" || name == "HAVING") {
      in_table_list = expect_table = false;
    } else if (expect_table && !policy_table_allowed(policy, name, TableUse::kRead)) {
      trace_check(trace, "allowed_tables", taken_word_begin(sql, rest));
      return refuse(message, "table is not allowed by MCP policy");
    } else {
      expect_table = in_table_list && !expect_table && comma_follows(rest);
    }
  }
  return true;
}

/// What stands before FROM is not looked at: "xfrom" ends the select list too.
bool ends_select_list(std::string_view rest) {
  constexpr std::size_t kLength = 4;
  return equal_ignoring_case(slice(rest, 0, kLength), "FROM") &&
         (rest.size() == kLength || !is_word_byte(rest[kLength]));
}

/// No "*" before the FROM, not even as a product.
bool check_wildcards(std::string_view sql, TextOut message, CheckTrace* trace) {
  for (std::size_t i = 0; i < sql.size();) {
    if (sql[i] == '\'') {
      i = std::min(skip_literal(sql, i), sql.size());
      continue;
    }
    if (ends_select_list(slice(sql, i))) return true;
    if (sql[i] == '*') {
      trace_check(trace, "select-wildcard", i);
      return refuse(message, "wildcard projection is denied when columns are restricted");
    }
    ++i;
  }
  return true;
}

}  // namespace

bool policy_validate_select(const McpPolicy& policy, std::string_view sql, TextOut message,
                            CheckTrace* trace) {
  if (!policy.valid) return refuse(message, kPolicyInvalid);
  if (!policy.configured) return true;
  if (!policy_reads_allowed(policy)) return refuse(message, kReadsDisabled);
  return check_lexical(sql, message, trace) && check_denied_words(policy, sql, message, trace) &&
         check_first_word(sql, message, trace) && check_structure(policy, sql, message, trace) &&
         (policy.denied_columns.count == 0 || check_wildcards(sql, message, trace));
}

}  // namespace kova

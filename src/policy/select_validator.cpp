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
bool check_lexical(std::string_view sql, TextOut message) {
  std::size_t depth = 0;
  for (std::size_t i = 0; i < sql.size();) {
    if (sql[i] == '\'') {
      i = skip_literal(sql, i);
      if (i == sql.npos) return refuse(message, kOpenAtEnd);
      continue;
    }
    if (begins_comment(sql, i)) return refuse(message, "comments are not allowed in policy SQL");
    if (sql[i] == '(') ++depth;
    if (sql[i] == ')' && depth-- == 0) return refuse(message, "unbalanced SQL parentheses");
    ++i;
  }
  return depth == 0 || refuse(message, kOpenAtEnd);
}

/// Every word counts, whatever its role: an alias or a table of a denied column's name is refused
/// too.
bool check_denied_words(const McpPolicy& policy, std::string_view sql, TextOut message) {
  char text[kWordCapacity];
  TextOut word(text);
  while (policy_next_word(sql, word)) {
    if (!policy_column_allowed(policy, word.view())) {
      return refuse(message, "column is denied by MCP policy");
    }
  }
  return true;
}

bool comma_follows(std::string_view rest) {
  const auto next = std::find_if_not(rest.begin(), rest.end(), is_space);
  return next != rest.end() && *next == ',';
}

/// One SELECT, and every name in a table's place allowed. Only a comma after a word that is no
/// table (an alias, say) puts the next word into a table's place.
bool check_structure(const McpPolicy& policy, std::string_view sql, TextOut message) {
  char text[kWordCapacity];
  TextOut word(text);
  bool in_table_list = false;
  bool expect_table = false;
  for (bool first_word = true; policy_next_word(sql, word); first_word = false) {
    const std::string_view name = word.view();
    if (first_word) {
      if (name != "SELECT") return refuse(message, "policy accepts SELECT only");
    } else if (name == "SELECT" || name == "UNION") {
      return refuse(message, "subqueries and UNION are not enabled by this policy version");
    } else if (name == "FROM" || name == "JOIN") {
      in_table_list = expect_table = true;
    } else if (name == "WHERE" || name == "GROUP" || name == "ORDER" || name == "HAVING") {
      in_table_list = expect_table = false;
    } else if (expect_table) {
      if (!policy_table_allowed(policy, name, TableUse::kRead)) {
        return refuse(message, "table is not allowed by MCP policy");
      }
      expect_table = false;
    } else if (in_table_list) {
      expect_table = comma_follows(sql);
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
bool check_wildcards(std::string_view sql, TextOut message) {
  for (std::size_t i = 0; i < sql.size();) {
    if (sql[i] == '\'') {
      i = std::min(skip_literal(sql, i), sql.size());
      continue;
    }
    if (ends_select_list(slice(sql, i))) return true;
    if (sql[i] == '*') {
      return refuse(message, "wildcard projection is denied when columns are restricted");
    }
    ++i;
  }
  return true;
}

}  // namespace

bool policy_validate_select(const McpPolicy& policy, std::string_view sql, TextOut message) {
  if (!policy.valid) return refuse(message, kPolicyInvalid);
  if (!policy.configured) return true;
  if (!policy_reads_allowed(policy)) return refuse(message, kReadsDisabled);
  return check_lexical(sql, message) && check_denied_words(policy, sql, message) &&
         check_structure(policy, sql, message) &&
         (policy.denied_columns.count == 0 || check_wildcards(sql, message));
}

}  // namespace kova

#include "tools/query_tool.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "base/ascii.h"
#include "base/text.h"
#include "policy/select_validator.h"
#include "policy/sql_words.h"
#include "tools/tool_args.h"
#include "tools/tool_result.h"

namespace kova {

namespace {

constexpr std::size_t kMessageCapacity = 256;
/// A statement of the largest size, its ";" included, and the terminator.
constexpr std::size_t kSqlCapacity = kStatementLimit + 1;

constexpr std::string_view kBadArguments =
    "sql must be one bounded read-only SELECT; unknown fields are rejected; max_rows must be "
    "1..256";

constexpr std::string_view kForbiddenWords[] = {
    "INTO",    "INSERT",   "UPDATE",      "DELETE", "DROP",   "ALTER",  "CREATE", "EXEC",
    "EXECUTE", "CALL",     "RUN",         "LOAD",   "IMPORT", "EXPORT", "GRANT",  "REVOKE",
    "COMMIT",  "ROLLBACK", "TRANSACTION", "LOCK",   "UNLOCK", "SET",    "USE",    "LOGIN",
    "LOGOUT",  "SYNC",     "PROVIDER",    "ATTACH", "DETACH"};

bool is_forbidden(std::string_view word) {
  return std::find(std::begin(kForbiddenWords), std::end(kForbiddenWords), word) !=
         std::end(kForbiddenWords);
}

bool only_space_from(std::string_view sql, std::size_t index) {
  return std::all_of(sql.begin() + static_cast<std::ptrdiff_t>(index), sql.end(), is_space);
}

bool read_arguments(const ToolCall& call, TextOut sql, std::uint32_t& max_rows) {
  if (!check_allowed_members(call.doc, call.arguments, {"sql", "max_rows", "_meta"}) ||
      !get_string_member(call.doc, call.arguments, "sql", sql)) {
    return false;
  }
  max_rows = kDefaultMaxRows;
  return json_find(call.doc, call.arguments, "max_rows") < 0 ||
         get_bounded_member(call.doc, call.arguments, "max_rows", 1, kMaxRowsLimit, max_rows);
}

}  // namespace

bool quick_select_check(std::string_view sql) {
  if (sql.empty() || sql.size() > kStatementLimit) return false;
  bool first_word = true;
  for (std::size_t i = 0; i < sql.size();) {
    const char c = sql[i];
    if (c == '\'') {
      i = skip_literal(sql, i);
      if (i == sql.npos) return false;
    } else if (c == ';') {
      return !first_word && only_space_from(sql, i + 1);
    } else if (begins_comment(sql, i)) {
      return false;
    } else if (is_alpha(c) || c == '_') {
      char text[kWordCapacity];
      TextOut word(text);
      std::string_view rest = slice(sql, i);
      if (!policy_next_word(rest, word)) return false;
      if (first_word && word.view() != "SELECT") return false;
      if (is_forbidden(word.view())) return false;
      first_word = false;
      i = sql.size() - rest.size();
    } else {
      ++i;
    }
  }
  return !first_word;
}

bool terminate_statement(char* sql) {
  std::size_t length = std::strlen(sql);
  while (length > 0 && is_space(sql[length - 1])) --length;
  if (length > 0 && sql[length - 1] == ';') return true;
  if (length >= kStatementLimit) return false;
  sql[length] = ';';
  sql[length + 1] = '\0';
  return true;
}

void query_tool(const ToolCall& call, ToolContext& context) {
  char sql[kSqlCapacity];
  std::uint32_t max_rows = 0;
  if (!read_arguments(call, sql, max_rows) || !quick_select_check(sql)) {
    write_tool_error(call, context, kBadArguments);
    return;
  }
  char message[kMessageCapacity];
  if (!policy_validate_select(context.policy, sql, message)) {
    write_tool_error(call, context, message);
    return;
  }
  set_objects(context, "policy-select");
  if (!terminate_statement(sql)) {
    write_tool_error(call, context, "sql size limit exceeded");
    return;
  }
  respond_with_statement(call, context, sql, max_rows);
}

}  // namespace kova

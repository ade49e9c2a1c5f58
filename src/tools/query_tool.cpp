#include "tools/query_tool.h"

#include <cstring>

#include "base/ascii.h"
#include "base/heap_array.h"
#include "base/text.h"
#include "json/reply.h"
#include "policy/quick_select.h"
#include "policy/select_validator.h"
#include "policy/sql_words.h"
#include "tools/tool_args.h"

namespace kova {

namespace {

// The checks and the execution of a statement have the same size limit.
static_assert(kSqlLimit == kStatementLimit);

/// A statement of the largest size, its ";" included, and the terminator.
constexpr std::size_t kSqlCapacity = kStatementLimit + 1;

bool read_arguments(const ToolCall& call, TextOut sql, std::uint32_t& max_rows) {
  if (!check_allowed_members(call, {"sql", "max_rows", "_meta"}) ||
      !get_string_member(call, "sql", sql)) {
    return false;
  }
  max_rows = kDefaultMaxRows;
  return json_find(call.doc, call.arguments, "max_rows") < 0 ||
         get_bounded_member(call, "max_rows", 1, kMaxRowsLimit, max_rows);
}

}  // namespace

bool terminate_statement(char* sql) {
  std::size_t length = std::strlen(sql);
  while (length > 0 && is_space(sql[length - 1])) --length;
  if (length > 0 && sql[length - 1] == ';') return true;
  if (length >= kStatementLimit) return false;
  sql[length] = ';';
  sql[length + 1] = '\0';
  return true;
}

bool query_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  // On the heap, where a short statement leaves most pages untouched.
  const HeapArray<char> text(kSqlCapacity);
  if (!text) return refuse(answer.message, kServerMemoryLimit);
  char* const sql = text.data();
  std::uint32_t max_rows = 0;
  if (!read_arguments(call, {sql, kSqlCapacity}, max_rows) ||
      !quick_select_check(sql, check_trace(context))) {
    return refuse(answer.message,
                  "sql must be one bounded read-only SELECT; unknown fields are rejected; max_rows "
                  "must be 1..256");
  }
  trace_call(context, "select");
  if (!policy_validate_select(context.policy, sql, answer.message, check_trace(context))) {
    return false;
  }
  set_objects(context, "policy-select");
  if (!terminate_statement(sql)) {
    trace_call(context, "select-size");
    return refuse(answer.message, "sql size limit exceeded");
  }
  return respond_with_statement(context, sql, max_rows, answer);
}

}  // namespace kova

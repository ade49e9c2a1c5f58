#include "tools/schema_tools.h"

#include "base/heap_array.h"
#include "base/text.h"
#include "policy/names.h"
#include "policy/policy.h"
#include "policy/predicates.h"
#include "tools/tool_args.h"

namespace kova {

namespace {

constexpr std::size_t kListCapacity = 8192;
/// Room that a list keeps free for its tail.
constexpr std::size_t kTailReserve = 64;

/// Names of the policy, one row each.
struct PolicyNames {
  const char (*names)[kSafeNameCapacity];
  std::uint32_t count;
};

bool append_rows(TextOut& out, const PolicyNames& list) {
  for (std::uint32_t i = 0; i < list.count; ++i) {
    if (!out.append(i == 0 ? "[\"" : ",[\"") || !out.append(list.names[i]) || !out.append("\"]") ||
        out.length() + kTailReserve >= out.capacity()) {
      return false;
    }
  }
  return true;
}

/// Makes the result of the policy's own names, without a statement.
bool respond_with_names(const PolicyNames& list, ToolAnswer& answer) {
  HeapArray<char> text(kListCapacity);
  if (!text) return refuse(answer.message, "policy catalog memory limit");
  TextOut out(text.data(), text.capacity());
  if (!out.copy(R"({"status":"policy-filtered","columns":["NAME"],"rows":[)") ||
      !append_rows(out, list) || !out.append(R"(],"rowCount":)") ||
      !out.append_number(list.count) || !out.append(R"(,"truncated":false})")) {
    return refuse(answer.message, "policy catalog limit");
  }
  answer.result.adopt(text.release(), out.length(), list.count);
  return true;
}

/// The checks of both lists.
bool check_list(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  if (call.arguments >= 0 && !check_allowed_members(call, {"_meta"})) {
    return refuse(answer.message, "this tool accepts no arguments");
  }
  // The frame has checked this before; the lists do not rely on it.
  return policy_reads_allowed(context.policy) ||
         refuse_by_policy(context, answer, kDeny, kReadsDisabled);
}

/// Reads the table that a call names; false when the policy does not let it be read.
bool read_table(const ToolCall& call, ToolContext& context, TextOut table) {
  trace_call(context, "arguments");
  if (!check_allowed_members(call, {"table", "_meta"})) return false;
  trace_argument(context, "allowed_tables", call, "table");
  return get_identifier_member(call, "table", table) &&
         policy_table_allowed(context.policy, table.data(), TableUse::kRead);
}

}  // namespace

bool list_databases_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  if (!check_list(call, context, answer)) return false;
  set_objects(context, "database-catalog");
  const McpPolicy& policy = context.policy;
  if (!policy.configured) {
    return respond_with_statement(context, "list database;", kMaxRowsLimit, answer);
  }
  return respond_with_names({.names = &policy.database, .count = 1}, answer);
}

bool list_tables_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  if (!check_list(call, context, answer)) return false;
  set_objects(context, "table-catalog");
  const McpPolicy& policy = context.policy;
  if (!policy.configured) {
    return respond_with_statement(context, "list table;", kMaxRowsLimit, answer);
  }
  const NameList& tables = policy.allowed_tables;
  return respond_with_names({.names = tables.names, .count = tables.count}, answer);
}

bool describe_table_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  char table[kSafeNameCapacity];
  if (!read_table(call, context, table)) {
    return refuse_by_policy(context, answer, kDeny,
                            "table is invalid or not allowed by MCP policy");
  }
  trace_call(context, "denied_columns");
  // A description would list the denied columns too.
  if (context.policy.configured && context.policy.denied_columns.count != 0) {
    return refuse_by_policy(context, answer, kDeny,
                            "schema description is disabled when the policy denies columns");
  }
  set_objects(context, table);
  char statement[kSafeNameCapacity + sizeof "describe ;"];
  TextOut out(statement);
  static_cast<void>(out.format("describe %s;", table));
  return respond_with_statement(context, statement, kMaxRowsLimit, answer);
}

}  // namespace kova

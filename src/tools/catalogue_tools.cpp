#include "tools/catalogue_tools.h"

#include <cstdlib>

#include "policy/predicates.h"
#include "tools/tool_args.h"
#include "tools/tool_result.h"

namespace kova {

namespace {

constexpr std::size_t kListCapacity = 8192;
/// Room that a list keeps free for its tail.
constexpr std::size_t kTailReserve = 64;

/// A text buffer on the heap; null without memory.
struct ListText {
  ListText() : data(static_cast<char*>(std::malloc(kListCapacity))) {}
  ~ListText() { std::free(data); }
  ListText(const ListText&) = delete;
  ListText& operator=(const ListText&) = delete;

  char* data;
};

bool append_rows(TextOut& out, const char (*names)[kSafeNameCapacity], std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!out.append(i == 0 ? "[\"" : ",[\"") || !out.append(names[i]) || !out.append("\"]") ||
        out.length() + kTailReserve >= kListCapacity) {
      return false;
    }
  }
  return true;
}

/// Answers with the policy's own names instead of the engine's.
void respond_with_names(const ToolCall& call, ToolContext& context,
                        const char (*names)[kSafeNameCapacity], std::uint32_t count) {
  const ListText text;
  if (text.data == nullptr) {
    write_tool_error(call, context, "policy catalog memory limit");
    return;
  }
  TextOut out(text.data, kListCapacity);
  if (!out.copy(R"({"status":"policy-filtered","columns":["NAME"],"rows":[)") ||
      !append_rows(out, names, count) || !out.append(R"(],"rowCount":)") ||
      !out.append_number(count) || !out.append(R"(,"truncated":false})")) {
    write_tool_error(call, context, "policy catalog limit");
    return;
  }
  write_tool_success(call, context, out.view(), count);
}

/// The checks of both lists. True when the tool may go on to its names.
bool accepts_list(const ToolCall& call, ToolContext& context, std::string_view objects) {
  if (call.arguments >= 0 && !check_allowed_members(call.doc, call.arguments, {"_meta"})) {
    write_tool_error(call, context, "this tool accepts no arguments");
    return false;
  }
  // The frame's gate again: the lists stand on it alone.
  if (context.policy.configured && !context.policy.reads_enabled) {
    refuse_tool(call, context, kDeny, "read tools are disabled by policy");
    return false;
  }
  set_objects(context, objects);
  return true;
}

}  // namespace

void list_databases_tool(const ToolCall& call, ToolContext& context) {
  if (!accepts_list(call, context, "database-catalog")) return;
  if (context.policy.configured) {
    respond_with_names(call, context, &context.policy.database, 1);
  } else {
    respond_with_statement(call, context, "list database;", kMaxRowsLimit);
  }
}

void list_tables_tool(const ToolCall& call, ToolContext& context) {
  if (!accepts_list(call, context, "table-catalog")) return;
  if (context.policy.configured) {
    const NameList& tables = context.policy.allowed_tables;
    respond_with_names(call, context, tables.names, tables.count);
  } else {
    respond_with_statement(call, context, "list table;", kMaxRowsLimit);
  }
}

void describe_table_tool(const ToolCall& call, ToolContext& context) {
  char table[kSafeNameCapacity];
  if (!check_allowed_members(call.doc, call.arguments, {"table", "_meta"}) ||
      !get_identifier_member(call.doc, call.arguments, "table", table) ||
      !policy_table_allowed(context.policy, table, TableUse::kRead)) {
    refuse_tool(call, context, kDeny, "table is invalid or not allowed by MCP policy");
    return;
  }
  // A description would list the denied columns too.
  if (context.policy.configured && context.policy.denied_columns.count != 0) {
    refuse_tool(call, context, kDeny,
                "schema description is disabled when the policy denies columns");
    return;
  }
  set_objects(context, table);
  char statement[kSafeNameCapacity + sizeof "describe ;"];
  TextOut out(statement);
  static_cast<void>(out.format("describe %s;", table));
  respond_with_statement(call, context, statement, kMaxRowsLimit);
}

}  // namespace kova

#include "tools/hybrid_search_tool.h"

#include <atomic>
#include <string_view>

#include "db/session.h"
#include "db/statement.h"
#include "json/json.h"
#include "platform/process.h"
#include "policy/policy.h"
#include "policy/predicates.h"
#include "tools/ai_collection.h"
#include "tools/tool_args.h"

namespace kova {

namespace {

constexpr std::size_t kTemporaryNameCapacity = 64;
constexpr std::size_t kDropCapacity = kTemporaryNameCapacity + sizeof "DROP TABLE ;";
/// Room that the list of columns keeps free for what follows it.
constexpr std::size_t kTailReserve = 256;
constexpr std::string_view kSourceDenied = "hybrid source table or key is denied by MCP policy";
constexpr std::string_view kProjectionTooLarge = "hybrid projection is too large";

std::atomic<std::uint32_t> hybrid_calls{0};

// Leaves the audit decision at "allow": these refusals are recorded as errors in the arguments.
bool check_source(const ToolCall& call, ToolContext& context, TextOut message) {
  const McpPolicy& policy = context.policy;
  char source_table[kSafeNameCapacity];
  char key_field[kSafeNameCapacity];
  trace_argument(context, "allowed_tables", call, "source_table");
  if (!get_string_member(call, "source_table", source_table) ||
      !policy_table_allowed(policy, source_table, TableUse::kRead)) {
    return refuse(message, kSourceDenied);
  }
  trace_argument(context, "denied_columns", call, "key_field");
  if (!get_string_member(call, "key_field", key_field) ||
      !policy_column_allowed(policy, key_field)) {
    return refuse(message, kSourceDenied);
  }
  trace_call(context, "arguments");
  const int columns = json_find(call.doc, call.arguments, "columns");
  if (!call.doc.is(columns, JsonType::kArray)) {
    static_cast<void>(call.blame(columns));
    return refuse(message, "hybrid columns are invalid");
  }
  for (const int element : JsonElements(call.doc, columns)) {
    char column[kSafeNameCapacity];
    trace_call(context, "denied_columns", element);
    if (!json_get_string(call.doc, element, column) || !policy_column_allowed(policy, column)) {
      return refuse(message, "hybrid column is denied by MCP policy");
    }
  }
  return true;
}

/// The arguments that are checked together.
struct HybridArguments {
  AiSearch search;
  char text[kSearchTextCapacity];
  char source_table[kSafeNameCapacity];
  char key_field[kSafeNameCapacity];
};

bool read_arguments(const ToolCall& call, HybridArguments& arguments) {
  return check_allowed_members(call, {"collection", "text", "top", "source_table", "key_field",
                                      "columns", "_meta"}) &&
         read_collection(call, arguments.search) && read_search_text(call, arguments.text) &&
         read_top(call, arguments.search) &&
         get_identifier_member(call, "source_table", arguments.source_table) &&
         get_identifier_member(call, "key_field", arguments.key_field);
}

struct HybridStatements {
  char search[kAiStatementCapacity];
  char select[kAiStatementCapacity];
  char drop[kDropCapacity];
};

bool compose(const ToolCall& call, const HybridArguments& arguments, int columns,
             HybridStatements& statements, TextOut message) {
  char temporary[kTemporaryNameCapacity];
  TextOut name(temporary);
  char literal[kAiStatementCapacity];
  TextOut search(statements.search);
  TextOut drop(statements.drop);
  const AiSearch& common = arguments.search;
  if (!name.format("mcp_hits_%u_%u", own_process_id(), hybrid_calls.fetch_add(1) + 1) ||
      !(quote_sql_text(arguments.text, literal) || call.blame_member("text")) ||
      !search.format("SEARCH AI %s TEXT %s TOP %u INTO TEMP %s;", common.collection, literal,
                     common.top, temporary) ||
      !drop.format("DROP TABLE %s;", temporary)) {
    return refuse(message, "hybrid text exceeds SQL limit");
  }
  return compose_hybrid_select(call.doc, columns,
                               {.temporary = temporary,
                                .source_table = arguments.source_table,
                                .key_field = arguments.key_field},
                               statements.select, message);
}

}  // namespace

bool check_hybrid_search(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  return check_collection(call, context, answer) && check_source(call, context, answer.message);
}

bool compose_hybrid_select(const JsonDoc& doc, int columns, const HybridJoin& join, TextOut sql,
                           TextOut message) {
  const char* const hits = join.temporary;
  if (!sql.format("SELECT %s.RANK,%s.SCORE,%s.VECTOR_ID,%s.SOURCE_KEY", hits, hits, hits, hits)) {
    return refuse(message, kProjectionTooLarge);
  }
  if (doc[columns].size == 0) return refuse(message, "hybrid columns are missing");
  for (const int element : JsonElements(doc, columns)) {
    char column[kSafeNameCapacity];
    if (!json_get_string(doc, element, column) || !policy_safe_name(column)) {
      return refuse(message, "hybrid column name is invalid");
    }
    if (!sql.format(",%s.%s", join.source_table, column) ||
        sql.length() + kTailReserve >= sql.capacity()) {
      return refuse(message, kProjectionTooLarge);
    }
  }
  return sql.format(" FROM %s,%s WHERE %s.SOURCE_KEY=%s.%s ORDER BY %s.RANK;", hits,
                    join.source_table, hits, join.source_table, join.key_field, hits) ||
         refuse(message, kProjectionTooLarge);
}

bool run_hybrid_statements(DbSession& session, const char* search, const char* select,
                           const char* drop, std::uint32_t top, StatementResult& result) {
  if (!execute_statement(session, search, top, result)) return false;
  const bool succeeded = execute_statement(session, select, top, result);
  StatementResult ignored;
  static_cast<void>(execute_statement(session, drop, 1, ignored));
  return succeeded;
}

bool hybrid_search_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  HybridArguments arguments;
  if (!read_arguments(call, arguments)) {
    return refuse(answer.message,
                  "invalid hybrid collection, source mapping, text, top, or unknown argument");
  }
  const int columns = json_find(call.doc, call.arguments, "columns");
  if (!has_elements(call, columns, kHybridColumnLimit)) {
    return refuse(answer.message, "columns must contain 1..16 safe field names");
  }
  HybridStatements statements;
  if (!compose(call, arguments, columns, statements, answer.message)) return false;
  if (run_hybrid_statements(context.session, statements.search, statements.select, statements.drop,
                            arguments.search.top, answer.result)) {
    return true;
  }
  return refuse(answer.message, or_else(answer.result.error, "hybrid search failed"));
}

}  // namespace kova

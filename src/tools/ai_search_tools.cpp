#include "tools/ai_search_tools.h"

#include <atomic>
#include <cstring>

#include "platform/process.h"
#include "policy/predicates.h"
#include "tools/tool_args.h"
#include "tools/tool_result.h"

namespace kova {

namespace {

constexpr std::size_t kTextLimit = 8192;
/// Room to decode a text in before its length is judged.
constexpr std::size_t kTextCapacity = 16401;
constexpr std::size_t kTemporaryNameCapacity = 64;
constexpr std::size_t kDropCapacity = kTemporaryNameCapacity + sizeof "DROP TABLE ;";
constexpr std::size_t kVectorReserve = 32;
constexpr std::size_t kProjectionReserve = 256;

std::atomic<unsigned long> hybrid_calls{0};

/// What all three searches take.
struct Search {
  char collection[kSafeNameCapacity];
  std::uint32_t top;
};

bool read_collection(const ToolCall& call, Search& search) {
  return get_identifier_member(call.doc, call.arguments, "collection", search.collection);
}

bool read_top(const ToolCall& call, Search& search) {
  return get_bounded_member(call.doc, call.arguments, "top", 1, kMaxRowsLimit, search.top);
}

bool read_text(const ToolCall& call, char (&text)[kTextCapacity]) {
  if (!get_string_member(call.doc, call.arguments, "text", text)) return false;
  const std::size_t length = std::strlen(text);
  return length > 0 && length <= kTextLimit;
}

/// Calls `visit` with the index of each direct element until it answers a message.
template <typename Visit>
const char* for_each_element(const JsonDoc& doc, int array, Visit visit) {
  const int end = json_skip(doc, array);
  for (int element = array + 1; element < end; element = json_skip(doc, element)) {
    if (const char* const failure = visit(element)) return failure;
  }
  return nullptr;
}

bool has_elements(const JsonDoc& doc, int array, std::int32_t most) {
  return doc.is(array, JsonType::kArray) && doc[array].size >= 1 && doc[array].size <= most;
}

bool is_full(const TextOut& sql, std::size_t reserve) {
  return sql.length() + reserve >= sql.capacity();
}

/// The arguments of a hybrid search that are checked together.
struct HybridArguments {
  Search search;
  char text[kTextCapacity];
  char source_table[kSafeNameCapacity];
  char key_field[kSafeNameCapacity];
};

bool read_hybrid_arguments(const ToolCall& call, HybridArguments& arguments) {
  return check_allowed_members(
             call.doc, call.arguments,
             {"collection", "text", "top", "source_table", "key_field", "columns", "_meta"}) &&
         read_collection(call, arguments.search) && read_text(call, arguments.text) &&
         read_top(call, arguments.search) &&
         get_identifier_member(call.doc, call.arguments, "source_table", arguments.source_table) &&
         get_identifier_member(call.doc, call.arguments, "key_field", arguments.key_field);
}

/// The three statements of a hybrid search.
struct HybridStatements {
  char search[kAiStatementCapacity];
  char select[kAiStatementCapacity];
  char drop[kDropCapacity];
};

/// Answers null, or the message of what cannot be composed.
const char* compose_hybrid(const ToolCall& call, const HybridArguments& arguments, int columns,
                           HybridStatements& statements) {
  char temporary[kTemporaryNameCapacity];
  TextOut name(temporary);
  char literal[kAiStatementCapacity];
  TextOut search(statements.search);
  TextOut drop(statements.drop);
  const Search& common = arguments.search;
  if (!name.format("mcp_hits_%lu_%lu", static_cast<unsigned long>(own_process_id()),
                   hybrid_calls.fetch_add(1) + 1) ||
      !quote_sql_text(arguments.text, literal) ||
      !search.format("SEARCH AI %s TEXT %s TOP %lu INTO TEMP %s;", common.collection, literal,
                     static_cast<unsigned long>(common.top), temporary) ||
      !drop.format("DROP TABLE %s;", temporary)) {
    return "hybrid text exceeds SQL limit";
  }
  return compose_hybrid_select(call.doc, columns,
                               {.temporary = temporary,
                                .source_table = arguments.source_table,
                                .key_field = arguments.key_field},
                               statements.select);
}

}  // namespace

bool quote_sql_text(std::string_view text, TextOut literal) {
  if (!literal.copy("'")) return false;
  for (const char byte : text) {
    const bool refused =
        static_cast<unsigned char>(byte) < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
    if (refused || !literal.append(byte)) return false;
    if (byte == '\'' && !literal.append(byte)) return false;
  }
  return literal.append('\'');
}

const char* compose_vector_search(const JsonDoc& doc, int vector, const char* collection,
                                  std::uint32_t top, TextOut sql) {
  static constexpr char kLimit[] = "vector SQL limit exceeded";
  if (!sql.format("SEARCH AI %s QUERY [", collection)) return kLimit;
  const char* const failure = for_each_element(doc, vector, [&](int element) -> const char* {
    float number = 0;
    if (!json_get_float(doc, element, number)) return "vector contains an invalid number";
    const char* const separator = element == vector + 1 ? "" : ",";
    const bool added = sql.format("%s%.9g", separator, static_cast<double>(number));
    return added && !is_full(sql, kVectorReserve) ? nullptr : kLimit;
  });
  if (failure != nullptr) return failure;
  return sql.format("] TOP %lu;", static_cast<unsigned long>(top)) ? nullptr : kLimit;
}

const char* compose_hybrid_select(const JsonDoc& doc, int columns, const HybridJoin& join,
                                  TextOut sql) {
  static constexpr char kTooLarge[] = "hybrid projection is too large";
  const char* const hits = join.temporary;
  if (!sql.format("SELECT %s.RANK,%s.SCORE,%s.VECTOR_ID,%s.SOURCE_KEY", hits, hits, hits, hits)) {
    return kTooLarge;
  }
  if (doc[columns].size == 0) return "hybrid columns are missing";
  const char* const failure = for_each_element(doc, columns, [&](int element) -> const char* {
    char column[kSafeNameCapacity];
    if (!json_get_string(doc, element, column) || !policy_safe_name(column)) {
      return "hybrid column name is invalid";
    }
    const bool added = sql.format(",%s.%s", join.source_table, column);
    return added && !is_full(sql, kProjectionReserve) ? nullptr : kTooLarge;
  });
  if (failure != nullptr) return failure;
  return sql.format(" FROM %s,%s WHERE %s.SOURCE_KEY=%s.%s ORDER BY %s.RANK;", hits,
                    join.source_table, hits, join.source_table, join.key_field, hits)
             ? nullptr
             : kTooLarge;
}

void text_search_tool(const ToolCall& call, ToolContext& context) {
  Search search;
  char text[kTextCapacity];
  char literal[kAiStatementCapacity];
  char statement[kAiStatementCapacity];
  TextOut sql(statement);
  if (!check_allowed_members(call.doc, call.arguments, {"collection", "text", "top", "_meta"}) ||
      !read_collection(call, search) || !read_text(call, text) || !read_top(call, search) ||
      !quote_sql_text(text, literal) ||
      !sql.format("SEARCH AI %s TEXT %s TOP %lu;", search.collection, literal,
                  static_cast<unsigned long>(search.top))) {
    write_tool_error(call, context, "invalid collection, text, top limit, or unknown argument");
    return;
  }
  set_objects(context, search.collection);
  respond_with_statement(call, context, statement, search.top);
}

void vector_search_tool(const ToolCall& call, ToolContext& context) {
  Search search;
  if (!check_allowed_members(call.doc, call.arguments, {"collection", "vector", "top", "_meta"}) ||
      !read_collection(call, search) || !read_top(call, search)) {
    write_tool_error(call, context, "invalid collection, top limit, or unknown argument");
    return;
  }
  set_objects(context, search.collection);
  const int vector = json_find(call.doc, call.arguments, "vector");
  if (!has_elements(call.doc, vector, kMostVectorElements)) {
    write_tool_error(call, context, "vector must contain 1..4096 finite numbers");
    return;
  }
  char statement[kVectorStatementCapacity];
  if (const char* const failure =
          compose_vector_search(call.doc, vector, search.collection, search.top, statement)) {
    write_tool_error(call, context, failure);
    return;
  }
  respond_with_statement(call, context, statement, search.top);
}

void hybrid_search_tool(const ToolCall& call, ToolContext& context) {
  HybridArguments arguments;
  if (!read_hybrid_arguments(call, arguments)) {
    write_tool_error(call, context,
                     "invalid hybrid collection, source mapping, text, top, or unknown argument");
    return;
  }
  const int columns = json_find(call.doc, call.arguments, "columns");
  if (!has_elements(call.doc, columns, kMostHybridColumns)) {
    write_tool_error(call, context, "columns must contain 1..16 safe field names");
    return;
  }
  HybridStatements statements;
  if (const char* const failure = compose_hybrid(call, arguments, columns, statements)) {
    write_tool_error(call, context, failure);
    return;
  }
  StatementResult result;
  if (execute_between(context.session, statements.search, statements.select, statements.drop,
                      arguments.search.top, result)) {
    write_tool_success(call, context, {result.text, result.textLength}, result.rowCount);
    return;
  }
  const std::string_view error(result.error);
  write_tool_error(call, context, error.empty() ? "hybrid search failed" : error);
}

}  // namespace kova

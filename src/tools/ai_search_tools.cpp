#include "tools/ai_search_tools.h"

#include <string_view>

#include "base/float_text.h"
#include "json/json.h"
#include "tools/ai_collection.h"
#include "tools/tool_args.h"

namespace kova {

namespace {

/// Room that the statement keeps free for its tail.
constexpr std::size_t kTailReserve = 32;
constexpr std::string_view kStatementTooLong = "vector SQL limit exceeded";

}  // namespace

bool text_search_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  AiSearch search;
  char text[kSearchTextCapacity];
  char literal[kAiStatementCapacity];
  char statement[kAiStatementCapacity];
  TextOut sql(statement);
  if (!check_allowed_members(call, {"collection", "text", "top", "_meta"}) ||
      !read_collection(call, search) || !read_search_text(call, text) || !read_top(call, search) ||
      !(quote_sql_text(text, literal) || call.blame_member("text")) ||
      !sql.format("SEARCH AI %s TEXT %s TOP %u;", search.collection, literal, search.top)) {
    return refuse(answer.message, "invalid collection, text, top limit, or unknown argument");
  }
  set_objects(context, search.collection);
  return respond_with_statement(context, statement, search.top, answer);
}

bool compose_vector_search(const JsonDoc& doc, int vector, const char* collection,
                           std::uint32_t top, TextOut sql, TextOut message, int* blamed) {
  if (!sql.format("SEARCH AI %s QUERY [", collection)) return refuse(message, kStatementTooLong);
  for (const int element : JsonElements(doc, vector)) {
    float number = 0;
    if (!json_get_float(doc, element, number)) {
      if (blamed != nullptr) *blamed = element;
      return refuse(message, "vector contains an invalid number");
    }
    const bool first = element == vector + 1;
    if ((!first && !sql.append(',')) || !append_float(sql, number) ||
        sql.length() + kTailReserve >= sql.capacity()) {
      return refuse(message, kStatementTooLong);
    }
  }
  return sql.format("] TOP %u;", top) || refuse(message, kStatementTooLong);
}

bool vector_search_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  AiSearch search;
  if (!check_allowed_members(call, {"collection", "vector", "top", "_meta"}) ||
      !read_collection(call, search) || !read_top(call, search)) {
    return refuse(answer.message, "invalid collection, top limit, or unknown argument");
  }
  set_objects(context, search.collection);
  const int vector = json_find(call.doc, call.arguments, "vector");
  if (!has_elements(call, vector, kVectorElementLimit)) {
    return refuse(answer.message, "vector must contain 1..4096 finite numbers");
  }
  char statement[kVectorStatementCapacity];
  int blamed = -1;
  return (compose_vector_search(call.doc, vector, search.collection, search.top, statement,
                                answer.message, &blamed) ||
          call.blame(blamed)) &&
         respond_with_statement(context, statement, search.top, answer);
}

}  // namespace kova

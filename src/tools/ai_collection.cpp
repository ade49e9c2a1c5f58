#include "tools/ai_collection.h"

#include <cstring>

#include "json/json.h"
#include "policy/predicates.h"
#include "tools/tool_args.h"

namespace kova {

bool check_collection(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  char collection[kSafeNameCapacity];
  trace_argument(context, "allowed_collections", call, "collection");
  if (get_string_member(call, "collection", collection) &&
      policy_collection_allowed(context.policy, collection)) {
    return true;
  }
  return refuse_by_policy(context, answer, kDeny,
                          "collection is invalid or not allowed by MCP policy");
}

bool read_collection(const ToolCall& call, AiSearch& search) {
  return get_identifier_member(call, "collection", search.collection);
}

bool read_top(const ToolCall& call, AiSearch& search) {
  return get_bounded_member(call, "top", 1, kMaxRowsLimit, search.top);
}

bool read_search_text(const ToolCall& call, char (&text)[kSearchTextCapacity]) {
  if (!get_string_member(call, "text", text)) return false;
  const std::size_t length = std::strlen(text);
  return (length > 0 && length <= kSearchTextLimit) || call.blame_member("text");
}

bool has_elements(const ToolCall& call, int array, std::int32_t limit) {
  const JsonDoc& doc = call.doc;
  return (doc.is(array, JsonType::kArray) && doc[array].size >= 1 && doc[array].size <= limit) ||
         call.blame(array);
}

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

}  // namespace kova

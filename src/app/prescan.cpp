#include "app/prescan.h"

#include "base/text.h"
#include "json/json.h"
#include "mcp/dispatcher.h"

namespace kova {

namespace {

/// The source text of the id, with the quotation marks of a string.
bool copy_raw_id(const JsonDoc& doc, int id, TextOut out) {
  if (!doc.is(id, JsonType::kString)) return out.copy(doc.raw(id));
  return out.copy("\"") && out.append(doc.raw(id)) && out.append('"');
}

}  // namespace

Prescan prescan(std::string_view message) {
  Prescan found;
  // The parser writes each token before anything reads it; zeroing them all would cost more than
  // the rest.
  __attribute__((uninitialized)) JsonToken tokens[kMessageTokenCapacity];
  JsonDoc doc;
  char text[kMethodCapacity];
  if (!json_parse(message, tokens, kMessageTokenCapacity, doc) ||
      !json_get_string(doc, json_find(doc, 0, "method"), text)) {
    return found;
  }
  const std::string_view method(text);
  const int id = json_find(doc, 0, "id");
  if (id >= 0 && !copy_raw_id(doc, id, found.raw_id)) {
    found.raw_id[0] = '\0';
    return found;
  }
  found.is_tool_call = id >= 0 && method == "tools/call";
  const int cancelled = json_find(doc, json_find(doc, 0, "params"), "requestId");
  found.is_cancel = method == "notifications/cancelled" &&
                    json_get_scalar_text(doc, cancelled, found.cancelled_id);
  return found;
}

}  // namespace kova

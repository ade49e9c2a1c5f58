#include "admin/policy/blamed_place.h"

#include <algorithm>
#include <memory>
#include <set>
#include <string>

#include "admin/policy/json_places.h"
#include "policy/sql_words.h"
#include "tools/ai_collection.h"

namespace kova::admin {

namespace {

using Place = std::optional<std::size_t>;

/// The checks of a call's shape; the others look at a word.
bool is_of_shape(std::string_view check) {
  return check == "message" || check == "arguments";
}

std::size_t start_of(const JsonDoc& doc, int token) {
  return static_cast<std::size_t>(doc[token].start);
}

/// Where a key or a value begins, a string's quotation mark included.
Place begin_of(const JsonDoc& doc, int token) {
  if (token < 0) return std::nullopt;
  return start_of(doc, token) - (doc.is(token, JsonType::kString) ? 1 : 0);
}

/// What takes part in the server's comparison of keys: at most 255 bytes that decode, up to an
/// escaped NUL.
std::optional<std::string> compared_key(const JsonDoc& doc, int key) {
  constexpr std::size_t kComparedKeyCapacity = 256;
  char text[kComparedKeyCapacity];
  if (!json_get_string(doc, key, text)) return std::nullopt;
  return text;
}

/// The second of two equal keys of an object, or -1.
int second_key(const JsonDoc& doc, int object) {
  std::set<std::string> seen;
  JsonMembers members(doc, object);
  for (const JsonMember member : members) {
    const std::optional<std::string> key = compared_key(doc, member.key);
    if (key && !seen.insert(*key).second) return member.key;
  }
  return -1;
}

/// The byte of a search's text that no SQL literal takes, or none.
Place refused_byte(const JsonDoc& doc, int token) {
  char text[kSearchTextCapacity];
  if (!json_get_string(doc, token, text)) return std::nullopt;
  const std::string_view decoded(text);
  const auto* const found = std::find_if(decoded.begin(), decoded.end(), [](char byte) {
    char room[8];
    return !quote_sql_text({&byte, 1}, room);
  });
  if (found == decoded.end() || decoded.size() > kSearchTextLimit) return std::nullopt;
  return source_offset(doc.raw(token), static_cast<std::size_t>(found - decoded.begin()));
}

/// The place in a string that is refused for its shape.
Place place_in_string(const JsonDoc& doc, int arguments, int token) {
  const std::string_view raw = doc.raw(token);
  const std::size_t malformed = malformed_escape(raw);
  if (malformed != raw.npos) return start_of(doc, token) + malformed;
  // The length alone is at fault.
  if (token == json_find(doc, arguments, "sql")) return std::nullopt;
  if (token == json_find(doc, arguments, "text")) {
    const Place byte = refused_byte(doc, token);
    if (byte) return start_of(doc, token) + *byte;
  }
  return begin_of(doc, token);
}

}  // namespace

Place unparsable_place(std::string_view line) {
  const auto tokens = std::make_unique_for_overwrite<JsonToken[]>(line.size() + 1);
  JsonDoc doc;
  std::size_t stopped = 0;
  if (!json_parse(line, tokens.get(), static_cast<int>(line.size()) + 1, doc, &stopped)) {
    return stopped < line.size() ? Place(stopped) : std::nullopt;
  }
  if (doc.count > kMessageTokenCapacity) return std::nullopt;
  for (int token = 0; token < doc.count; ++token) {
    const int key = second_key(doc, token);
    if (key >= 0) return begin_of(doc, key);
  }
  return std::nullopt;
}

Place envelope_place(const JsonDoc& doc, std::string_view message) {
  const char* const key = message == "jsonrpc must be 2.0"  ? "jsonrpc"
                          : message == "method is required" ? "method"
                                                            : "id";
  return begin_of(doc, json_find(doc, 0, key));
}

Place blamed_place(const JsonDoc& doc, int arguments, const CallTrace& trace) {
  if (trace.token >= 0) {
    if (!doc.is(trace.token, JsonType::kString)) return begin_of(doc, trace.token);
    return is_of_shape(trace.check.check) ? place_in_string(doc, arguments, trace.token)
                                          : Place(start_of(doc, trace.token));
  }
  if (trace.check.offset == CheckTrace::kNowhere) return std::nullopt;
  const int sql = json_find(doc, arguments, "sql");
  if (sql < 0) return std::nullopt;
  return start_of(doc, sql) + source_offset(doc.raw(sql), trace.check.offset);
}

}  // namespace kova::admin

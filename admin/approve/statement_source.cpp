#include "admin/approve/statement_source.h"

#include <fmt/format.h>

#include <vector>

#include "admin/approve/statement_rows.h"
#include "admin/common/file_text.h"
#include "admin/common/refusal.h"
#include "admin/common/utf8.h"
#include "base/text.h"
#include "db/statement.h"
#include "json/json.h"
#include "mcp/duplicate_keys.h"
#include "tools/execute_tool.h"

namespace kova::admin {

namespace {

/// More than any message that the server reads.
constexpr std::size_t kSourceLimit = 1048576;

constexpr std::size_t kToolCapacity = 129;
constexpr std::size_t kMethodCapacity = 64;
constexpr std::string_view kCallMethod = "tools/call";
constexpr std::string_view kWriteTool = "kova_execute";

std::string shown_place(std::string_view text, std::size_t index) {
  const Place place = place_of(text, index);
  return fmt::format("line {}, column {}", place.line, place.column);
}

/// The statement would end there for the server, and go on for the reader.
void refuse_escaped_nul(std::string_view source) {
  for (std::size_t at = source.find('\\'); at != source.npos; at = source.find('\\', at + 2)) {
    if (source.substr(at, 6) == "\\u0000") throw Refusal("the statement holds a NUL (\\u0000)");
  }
}

/// Whether the message is the server's reply to a proposal, or a part of it.
bool is_reply(const JsonDoc& doc) {
  return json_find(doc, 0, "result") >= 0 || json_find(doc, 0, "structuredContent") >= 0 ||
         json_find(doc, 0, "operation_digest") >= 0;
}

/// Whether a request without its method, or one of this method, may call a tool.
bool may_call_tool(const JsonDoc& doc) {
  const int method = json_find(doc, 0, "method");
  char text[kMethodCapacity] = {};
  return method < 0 || (json_get_string(doc, method, text) && text == kCallMethod);
}

/// The index of the object that holds the statement.
int arguments_of(const JsonDoc& doc) {
  if (json_find(doc, 0, "sql") >= 0) return 0;
  if (is_reply(doc)) {
    throw Refusal("the server's answer holds no statement: its digest goes into --digest");
  }
  const int params = json_find(doc, 0, "params");
  if (!doc.is(params, JsonType::kObject)) throw Refusal("the message holds no statement");
  char tool[kToolCapacity] = {};
  if (!may_call_tool(doc) || !json_get_string(doc, json_find(doc, params, "name"), tool) ||
      tool != kWriteTool) {
    throw Refusal(fmt::format("the message does not call {}", kWriteTool));
  }
  return json_find(doc, params, "arguments");
}

std::string statement_of_message(std::string_view text) {
  std::vector<JsonToken> tokens(kMessageTokenCapacity);
  JsonDoc doc;
  if (!json_parse(text, tokens.data(), kMessageTokenCapacity, doc)) {
    throw Refusal("the message is not valid JSON");
  }
  if (has_duplicate_keys(doc)) throw Refusal("the message has two members of the same key");
  const int arguments = arguments_of(doc);
  std::string sql(kStatementLimit + 1, '\0');
  if (!read_write_sql({.doc = doc, .arguments = arguments}, TextOut(sql.data(), sql.size()))) {
    throw Refusal(std::string(kWriteArgumentsMessage));
  }
  refuse_escaped_nul(doc.raw(json_find(doc, arguments, "sql")));
  sql.resize(sql.find('\0'));
  return sql;
}

}  // namespace

std::string statement_of(std::string_view text) {
  const std::size_t nul = text.find('\0');
  if (nul != text.npos) throw Refusal("a NUL byte at " + shown_place(text, nul));
  const std::size_t malformed = find_malformed(text);
  if (malformed != text.npos) {
    throw Refusal("the text is not UTF-8 at " + shown_place(text, malformed));
  }
  return text.starts_with('{') ? statement_of_message(text) : std::string(text);
}

std::string read_statement(const std::string& path) {
  if (path == "-") return statement_of(read_standard_input(kSourceLimit).view());
  return statement_of(read_file(path, kSourceLimit).view());
}

}  // namespace kova::admin

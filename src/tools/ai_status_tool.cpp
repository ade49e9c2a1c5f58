#include "tools/ai_status_tool.h"

#include <cstdlib>

#include "db/statement.h"
#include "policy/predicates.h"
#include "tools/tool_args.h"
#include "tools/tool_result.h"

namespace kova {

namespace {

constexpr std::size_t kStatementCapacity = 128;
/// Room for the composed object's own bytes.
constexpr std::size_t kEnvelopeReserve = 96;
constexpr std::string_view kNoProvider = "null";

/// The names that the call asks about; the provider's is empty when it asks about none.
struct StatusRequest {
  char collection[kSafeNameCapacity];
  char provider[kSafeNameCapacity];
};

/// Runs one statement about a name; a failure is answered with its words as they stand.
bool show(const ToolCall& call, ToolContext& context, std::string_view words, std::string_view name,
          std::uint32_t max_rows, StatementResult& result) {
  char statement[kStatementCapacity];
  TextOut sql(statement);
  if (sql.copy(words) && sql.append(name) && sql.append(';') &&
      execute_statement(context.session, statement, max_rows, result)) {
    return true;
  }
  write_tool_error(call, context, result.error);
  return false;
}

void set_status_objects(ToolContext& context, const StatusRequest& request) {
  char objects[2 * kSafeNameCapacity];
  TextOut out(objects);
  static_cast<void>(
      out.copy(request.collection) &&
      (request.provider[0] == '\0' || (out.append(',') && out.append(request.provider))));
  set_objects(context, out.view());
}

std::string_view text_of(const StatementResult& result) {
  return {result.text, result.textLength};
}

/// The composed object on the heap; null without memory.
struct StatusText {
  explicit StatusText(std::size_t size)
      : capacity(size), data(static_cast<char*>(std::malloc(size))) {}
  ~StatusText() { std::free(data); }
  StatusText(const StatusText&) = delete;
  StatusText& operator=(const StatusText&) = delete;

  std::size_t capacity;
  char* data;
};

void respond(const ToolCall& call, ToolContext& context, std::string_view collection,
             std::string_view provider, const StatementResult& jobs) {
  const StatusText text(collection.size() + provider.size() + jobs.textLength + kEnvelopeReserve);
  if (text.data == nullptr) {
    write_tool_error(call, context, "AI status memory limit");
    return;
  }
  TextOut out(text.data, text.capacity);
  static_cast<void>(out.copy(R"({"collection":)") && out.append(collection) &&
                    out.append(R"(,"provider":)") && out.append(provider) &&
                    out.append(R"(,"jobs":)") && out.append(text_of(jobs)) && out.append('}'));
  write_tool_success(call, context, out.view(), jobs.rowCount);
}

}  // namespace

void ai_status_tool(const ToolCall& call, ToolContext& context) {
  StatusRequest request{};
  if (!check_allowed_members(call.doc, call.arguments, {"collection", "provider", "_meta"}) ||
      !get_identifier_member(call.doc, call.arguments, "collection", request.collection)) {
    write_tool_error(
        call, context,
        "collection must be a safe Vantreo identifier and unknown fields are not allowed");
    return;
  }
  const bool has_provider = json_find(call.doc, call.arguments, "provider") >= 0;
  if (has_provider &&
      !get_identifier_member(call.doc, call.arguments, "provider", request.provider)) {
    write_tool_error(call, context, "provider must be a safe Vantreo identifier");
    return;
  }
  set_status_objects(context, request);
  StatementResult collection;
  StatementResult jobs;
  StatementResult provider;
  if (!show(call, context, "SHOW AI STATUS ", request.collection, 1, collection) ||
      !show(call, context, "SHOW AI JOBS FOR ", request.collection, kMaxRowsLimit, jobs) ||
      (has_provider && !show(call, context, "SHOW AI PROVIDER ", request.provider, 1, provider))) {
    return;
  }
  respond(call, context, text_of(collection), has_provider ? text_of(provider) : kNoProvider, jobs);
}

}  // namespace kova

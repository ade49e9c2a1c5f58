#include "tools/ai_status_tool.h"

#include <string_view>

#include "base/heap_array.h"
#include "base/text.h"
#include "db/session.h"
#include "db/statement.h"
#include "policy/predicates.h"
#include "tools/ai_collection.h"
#include "tools/tool_args.h"

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

  [[nodiscard]] bool has_provider() const { return provider[0] != '\0'; }
};

bool read_request(const ToolCall& call, StatusRequest& request, TextOut message) {
  if (!check_allowed_members(call, {"collection", "provider", "_meta"}) ||
      !get_identifier_member(call, "collection", request.collection)) {
    return refuse(
        message, "collection must be a safe Vantreo identifier and unknown fields are not allowed");
  }
  return json_find(call.doc, call.arguments, "provider") < 0 ||
         get_identifier_member(call, "provider", request.provider) ||
         refuse(message, "provider must be a safe Vantreo identifier");
}

void set_status_objects(ToolContext& context, const StatusRequest& request) {
  char objects[2 * kSafeNameCapacity];
  TextOut out(objects);
  static_cast<void>(out.copy(request.collection) &&
                    (!request.has_provider() || (out.append(',') && out.append(request.provider))));
  set_objects(context, out.view());
}

/// Runs one statement about a name; a failure leaves its message as it stands.
bool show(DbSession& session, std::string_view words, std::string_view name, std::uint32_t max_rows,
          StatementResult& result, TextOut message) {
  char statement[kStatementCapacity];
  TextOut sql(statement);
  return (sql.copy(words) && sql.append(name) && sql.append(';') &&
          execute_statement(session, statement, max_rows, result)) ||
         refuse(message, result.error);
}

std::string_view text_of(const StatementResult& result) {
  return {result.text, result.textLength};
}

bool compose(std::string_view collection, std::string_view provider, const StatementResult& jobs,
             ToolAnswer& answer) {
  HeapArray<char> text(collection.size() + provider.size() + jobs.textLength + kEnvelopeReserve);
  if (!text) return refuse(answer.message, "AI status memory limit");
  TextOut out(text.data(), text.capacity());
  static_cast<void>(out.copy(R"({"collection":)") && out.append(collection) &&
                    out.append(R"(,"provider":)") && out.append(provider) &&
                    out.append(R"(,"jobs":)") && out.append(text_of(jobs)) && out.append('}'));
  answer.result.adopt(text.release(), out.length(), jobs.rowCount);
  return true;
}

}  // namespace

bool check_ai_status(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  if (!check_collection(call, context, answer)) return false;
  const int provider = json_find(call.doc, call.arguments, "provider");
  trace_call(context, "provider_reads_enabled", provider);
  return provider < 0 || policy_provider_reads_allowed(context.policy) ||
         refuse_by_policy(context, answer, kKillSwitch,
                          "provider status is disabled by policy or kill switch");
}

bool ai_status_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  StatusRequest request{};
  if (!read_request(call, request, answer.message)) return false;
  set_status_objects(context, request);
  StatementResult collection;
  StatementResult jobs;
  StatementResult provider;
  const bool shown =
      show(context.session, "SHOW AI STATUS ", request.collection, 1, collection, answer.message) &&
      show(context.session, "SHOW AI JOBS FOR ", request.collection, kMaxRowsLimit, jobs,
           answer.message) &&
      (!request.has_provider() ||
       show(context.session, "SHOW AI PROVIDER ", request.provider, 1, provider, answer.message));
  return shown && compose(text_of(collection),
                          request.has_provider() ? text_of(provider) : kNoProvider, jobs, answer);
}

}  // namespace kova

#include "admin/policy/call_judge.h"

#include <fmt/format.h>

#include "admin/common/refusal.h"
#include "admin/common/utf8.h"
#include "admin/policy/blamed_place.h"
#include "admin/policy/json_places.h"
#include "audit/audit.h"
#include "base/heap_array.h"
#include "base/text.h"
#include "db/session.h"
#include "db/statement.h"
#include "json/reply.h"
#include "mcp/dispatcher.h"
#include "policy/sql_words.h"
#include "tools/execute_tool.h"
#include "tools/tool.h"
#include "tools/tool_call.h"

namespace kova::admin {

namespace {

constexpr std::string_view kReadTool = "kova_query";
constexpr std::string_view kWriteTool = "kova_execute";

struct VerdictName {
  Verdict verdict;
  std::string_view name;
};

constexpr VerdictName kVerdictNames[] = {{.verdict = Verdict::kAllow, .name = "allow"},
                                         {.verdict = Verdict::kDeny, .name = "deny"},
                                         {.verdict = Verdict::kApproval, .name = "approval"}};

/// The protocol carries neither a NUL nor malformed UTF-8.
void check_sendable(std::string_view text) {
  const std::size_t nul = text.find('\0');
  if (nul != text.npos) throw Refusal("a NUL byte at " + byte_place(text, nul));
  const std::size_t malformed = find_malformed(text);
  if (malformed != text.npos) {
    throw Refusal("the text is not UTF-8 at " + byte_place(text, malformed));
  }
}

CallVerdict refused_message(const RpcError& error, std::optional<std::size_t> offset) {
  CallVerdict verdict;
  verdict.message = error.message;
  verdict.check = "message";
  verdict.offset = offset;
  return verdict;
}

Verdict verdict_in(const ToolOutcome& outcome, const ToolContext& context) {
  if (outcome.success || context.session.withheld) return Verdict::kAllow;
  const std::string_view decision(context.audit.policy_decision);
  return decision == kApprovalRequired ? Verdict::kApproval : Verdict::kDeny;
}

}  // namespace

std::string_view verdict_name(Verdict verdict) {
  return kVerdictNames[static_cast<std::size_t>(verdict)].name;
}

std::optional<Verdict> verdict_of(std::string_view name) {
  for (const VerdictName& known : kVerdictNames) {
    if (known.name == name) return known.verdict;
  }
  return std::nullopt;
}

std::string_view tool_of(std::string_view sql) {
  char text[kWordCapacity];
  TextOut word(text);
  const bool is_write =
      policy_next_word(sql, word) &&
      (word.view() == "INSERT" || word.view() == "UPDATE" || word.view() == "DELETE");
  return is_write ? kWriteTool : kReadTool;
}

CallJudge::CallJudge(const McpPolicy& policy)
    : policy_(policy), write_(std::make_unique<ClassifiedWrite>()) {}

CallVerdict CallJudge::statement(std::string_view sql) {
  check_sendable(sql);
  const std::string text = nlohmann::json(sql).dump();
  CallVerdict verdict = call(tool_of(sql), R"({"sql":)" + text + '}');
  if (verdict.offset) {
    // The place in the message becomes the place in the statement.
    const std::size_t begin =
        call_head(verdict.tool).size() + std::string_view(R"({"sql":")").size();
    verdict.offset = decoded_offset(std::string_view(text).substr(1), *verdict.offset - begin);
  }
  return verdict;
}

CallVerdict CallJudge::call(std::string_view tool, std::string_view arguments) {
  const std::string message = call_head(tool) + std::string(arguments) + "}}";
  const HeapArray<JsonToken> tokens(kMessageTokenCapacity);
  JsonDoc doc;
  RpcError error;
  if (!parse_message(message, tokens, doc, error)) {
    CallVerdict verdict = refused_message(error, std::nullopt);
    verdict.tool = tool;
    return verdict;
  }
  return run(doc);
}

CallVerdict CallJudge::message(std::string_view line) {
  check_sendable(line);
  const HeapArray<JsonToken> tokens(kMessageTokenCapacity);
  const auto state = std::make_unique<ProtocolState>();
  JsonDoc doc;
  RpcError error;
  char method[kMethodCapacity];
  if (!parse_message(line, tokens, doc, error)) {
    return refused_message(error, unparsable_place(line));
  }
  if (!check_message(doc, json_find(doc, 0, "id"), *state, method, error)) {
    return refused_message(error, envelope_place(doc, error.message));
  }
  if (std::string_view(method) != "tools/call") {
    throw Refusal(fmt::format("the message calls {}, not tools/call", method));
  }
  if (json_find(doc, 0, "id") < 0) {
    throw Refusal("the message has no id: the server does not serve it");
  }
  return run(doc);
}

CallVerdict CallJudge::run(const JsonDoc& doc) {
  AuditContext audit{};
  DbSession session;
  session.closed_guard = 1;
  CallTrace trace;
  ToolContext context{.policy = policy_, .audit = audit, .session = session, .trace = &trace};
  const int params = json_find(doc, 0, "params");
  const int arguments = json_find(doc, params, "arguments");
  ToolOutcome outcome;
  RpcError error;
  CallVerdict verdict;
  if (run_tools_call(doc, json_find(doc, 0, "id"), params, context, outcome, error)) {
    verdict.verdict = verdict_in(outcome, context);
    verdict.message = outcome.answer.message;
  } else {
    verdict.message = error.message;
  }
  verdict.tool = audit.tool;
  verdict.check = trace.check.check;
  if (verdict.verdict == Verdict::kAllow) verdict.message.clear();
  if (verdict.verdict == Verdict::kDeny) verdict.offset = blamed_place(doc, arguments, trace);
  add_write(doc, arguments, verdict);
  return verdict;
}

void CallJudge::add_write(const JsonDoc& doc, int arguments, CallVerdict& verdict) {
  const ToolCall call{.doc = doc, .arguments = arguments};
  char sql[kStatementLimit + 1];
  if (verdict.tool != kWriteTool || !read_write_sql(call, sql)) return;
  write_->type[0] = '\0';
  char message[kStatementErrorCapacity];
  const bool accepted = write_classify(policy_, sql, *write_, message);
  if (write_->type[0] == '\0') return;
  verdict.type = write_->type;
  verdict.table = write_->table;
  verdict.canonical = write_->canonical;
  if (accepted) verdict.digest = write_->digest;
}

Json verdict_json(const CallVerdict& verdict) {
  Json found = {{"verdict", verdict_name(verdict.verdict)}};
  const auto add = [&](const char* key, const std::string& text) {
    if (!text.empty()) found[key] = text;
  };
  add("tool", verdict.tool);
  if (verdict.verdict != Verdict::kAllow) found["message"] = verdict.message;
  add("check", verdict.check);
  if (verdict.offset) found["offset"] = *verdict.offset;
  add("type", verdict.type);
  add("table", verdict.table);
  add("canonical", verdict.canonical);
  add("digest", verdict.digest);
  return found;
}

}  // namespace kova::admin

#include "tools/execute_tool.h"

#include "approval/token.h"
#include "base/secret.h"
#include "json/reply.h"
#include "policy/predicates.h"
#include "policy/write_classifier.h"
#include "tools/tool_args.h"
#include "tools/tool_result.h"

namespace kova {

namespace {

constexpr std::size_t kMessageCapacity = 256;
/// A write answers with its status, not with rows.
constexpr std::uint32_t kWriteRows = 1;

void ask_for_approval(const ToolCall& call, ToolContext& context, const ClassifiedWrite& write) {
  set_decision(context, "approval_required");
  ReplyLine()
      .raw(R"({"jsonrpc":"2.0","id":)")
      .id(request_id(call))
      .raw(R"(,"result":{"content":[{"type":"text","text":)")
      .raw(R"("operator approval is required for this exact normalized operation"}],)")
      .raw(R"("structuredContent":{"approval_required":true,"operation_type":)")
      .string(write.type)
      .raw(R"(,"table":)")
      .string(write.table)
      .raw(R"(,"operation_digest":)")
      .string(write.digest)
      .raw(R"(,"policy":)")
      .string(context.policy.name)
      .raw(R"(,"maximum_ttl_seconds":)")
      .number(context.policy.approval_ttl_seconds)
      .raw(R"(},"isError":true}})");
  audit_failure(context);
}

/// Verifies the token, and by that uses it up.
bool is_approved(const ToolCall& call, const ToolContext& context, const ClassifiedWrite& write,
                 TextOut message) {
  char token[kTokenCapacity];
  const WipeGuard guard(token);
  if (!get_string_member(call.doc, call.arguments, "approval_token", token)) {
    return refuse(message, "approval token is invalid");
  }
  return approval_verify(context.policy, write.digest, token, unix_seconds(), message);
}

void run_classified(const ToolCall& call, ToolContext& context, const ClassifiedWrite& write) {
  set_objects(context, write.table);
  if (context.policy.approval_required) {
    if (json_find(call.doc, call.arguments, "approval_token") < 0) {
      ask_for_approval(call, context, write);
      return;
    }
    char message[kApprovalMessageCapacity] = {};
    if (!is_approved(call, context, write, message)) {
      refuse_tool(call, context, kDeny, message);
      return;
    }
    set_decision(context, "approval_accepted");
  }
  respond_with_statement(call, context, write.canonical, kWriteRows);
}

}  // namespace

bool read_write_sql(const JsonDoc& doc, int arguments, TextOut sql) {
  return check_allowed_members(doc, arguments, {"sql", "approval_token", "_meta"}) &&
         get_string_member(doc, arguments, "sql", sql);
}

void execute_tool(const ToolCall& call, ToolContext& context) {
  // With writes off the tool does not exist, and the answer does not tell.
  if (!policy_writes_allowed(context.policy)) {
    refuse_unknown_tool(call);
    return;
  }
  char sql[kStatementLimit + 1];
  if (!read_write_sql(call.doc, call.arguments, sql)) {
    write_tool_error(call, context, kWriteArgumentsMessage);
    return;
  }
  ClassifiedWrite write;
  const WipeGuard guard(write.canonical);
  char message[kMessageCapacity] = {};
  if (!write_classify(context.policy, sql, write, message)) {
    write_tool_error(call, context, message);
    return;
  }
  run_classified(call, context, write);
}

}  // namespace kova

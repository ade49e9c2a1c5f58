#include "tools/execute_tool.h"

#include "approval/token.h"
#include "base/secret.h"
#include "base/text.h"
#include "platform/clock.h"
#include "policy/policy.h"
#include "policy/write_classifier.h"
#include "tools/tool_args.h"

namespace kova {

namespace {

/// A write has a status and no rows.
constexpr std::uint32_t kWriteRows = 1;

/// Refuses the write until it is approved. All texts are safe names, hexadecimal digits or
/// keywords, which JSON takes as they stand, and fit.
bool ask_for_approval(const ClassifiedWrite& write, ToolContext& context, ToolAnswer& answer) {
  const McpPolicy& policy = context.policy;
  static_cast<void>(TextOut(answer.structured)
                        .format(R"({"approval_required":true,"operation_type":"%s","table":"%s",)"
                                R"("operation_digest":"%s","policy":"%s",)"
                                R"("maximum_ttl_seconds":%u})",
                                write.type, write.table, write.digest, policy.name,
                                policy.approval_ttl_seconds));
  return refuse_by_policy(context, answer, kApprovalRequired,
                          "operator approval is required for this exact normalized operation");
}

/// Verifies the token, and by that uses it up.
bool check_token(const ToolCall& call, const McpPolicy& policy, const ClassifiedWrite& write,
                 TextOut message) {
  char token[kTokenCapacity];
  const WipeGuard guard(token);
  if (!get_string_member(call, "approval_token", token)) {
    return refuse(message, kTokenInvalid);
  }
  return approval_verify(policy, write.digest, token, unix_seconds(), message);
}

bool check_approval(const ToolCall& call, ToolContext& context, const ClassifiedWrite& write,
                    ToolAnswer& answer) {
  trace_call(context, "approval_required");
  if (!context.policy.approval_required) return true;
  if (context.trace != nullptr || json_find(call.doc, call.arguments, "approval_token") < 0) {
    return ask_for_approval(write, context, answer);
  }
  const bool approved = check_token(call, context.policy, write, answer.message);
  set_decision(context, approved ? kApprovalAccepted : kDeny);
  return approved;
}

}  // namespace

bool read_write_sql(const ToolCall& call, TextOut sql) {
  return check_allowed_members(call, {"sql", "approval_token", "_meta"}) &&
         get_string_member(call, "sql", sql);
}

bool execute_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  char sql[kStatementLimit + 1];
  if (!read_write_sql(call, sql)) {
    return refuse(answer.message, kWriteArgumentsMessage);
  }
  ClassifiedWrite write;
  const WipeGuard guard(write.canonical);
  if (!write_classify(context.policy, sql, write, answer.message, check_trace(context))) {
    return false;
  }
  set_objects(context, write.table);
  return check_approval(call, context, write, answer) &&
         respond_with_statement(context, write.canonical, kWriteRows, answer);
}

}  // namespace kova

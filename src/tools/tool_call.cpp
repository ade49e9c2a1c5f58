#include "tools/tool_call.h"

#include <string_view>

#include "audit/audit.h"
#include "base/text.h"
#include "platform/clock.h"
#include "policy/policy.h"
#include "policy/predicates.h"
#include "tools/tool_args.h"
#include "tools/tool_table.h"

namespace kova {

namespace {

bool read_params(const JsonDoc& doc, int params, TextOut name, ToolContext& context,
                 RpcError& error) {
  int blamed = -1;
  if (!check_allowed_members(doc, params, {"name", "arguments", "_meta"}, &blamed)) {
    trace_call(context, "message", blamed);
    return refuse(error, kInvalidParams, "tools/call params are invalid or contain unknown fields");
  }
  if (context.trace != nullptr) trace_call(context, "message", json_find(doc, params, "name"));
  return get_string_member(doc, params, "name", name) ||
         refuse(error, kInvalidParams, "tools/call requires a valid tool name");
}

void open_audit_context(AuditContext& audit, const JsonDoc& doc, int id, std::string_view tool) {
  audit = {};
  TextOut(audit.tool).copy_cut(tool);
  TextOut(audit.policy_decision).copy_cut(kAllow);
  if (!json_get_scalar_text(doc, id, audit.correlation_id)) {
    TextOut(audit.correlation_id).copy_cut("invalid");
  }
  audit.started_ms = tick_ms();
}

bool check_policy_valid(ToolContext& context, ToolAnswer& answer) {
  trace_call(context, "policy");
  if (context.policy.valid) return true;
  return refuse_by_policy(context, answer, kDeny, or_else(context.policy.error, kPolicyInvalid));
}

/// Everything but the write tool counts as a read, an unknown tool (null) included.
bool check_read_switch(const Tool* tool, ToolContext& context, ToolAnswer& answer) {
  if (tool != nullptr && tool->access == ToolAccess::kWrite) return true;
  trace_call(context, "reads_enabled");
  return policy_reads_allowed(context.policy) ||
         refuse_by_policy(context, answer, kDeny, kReadsDisabled);
}

bool check_provider_switch(const Tool* tool, ToolContext& context, ToolAnswer& answer) {
  if (tool == nullptr || tool->access != ToolAccess::kProviderRead) return true;
  trace_call(context, "provider_reads_enabled");
  return policy_provider_reads_allowed(context.policy) ||
         refuse_by_policy(context, answer, kKillSwitch,
                          "provider-backed MCP reads are disabled by policy or kill switch");
}

/// With writes off, the write tool gets the reply of an unknown tool.
bool exists(const Tool* tool, const McpPolicy& policy) {
  return tool != nullptr && (tool->access != ToolAccess::kWrite || policy_writes_allowed(policy));
}

bool serve(const Tool& tool, const ToolCall& call, ToolContext& context, ToolAnswer& answer) {
  if (tool.check != nullptr && !tool.check(call, context, answer)) return false;
  trace_call(context, "arguments");
  return tool.handler(call, context, answer);
}

void trace_missing_tool(const Tool* tool, const JsonDoc& doc, int params, ToolContext& context) {
  if (context.trace == nullptr) return;
  if (tool != nullptr) return trace_call(context, "writes_enabled");
  trace_call(context, "tool", json_find(doc, params, "name"));
}

/// Writes the reply first, so that the audit file holds up no reply.
void finish(RequestId request, const ToolContext& context, const ToolAnswer& answer, bool success) {
  AuditOutcome outcome{.success = success, .rows = 0, .bytes = 0};
  if (success) {
    write_tool_success(request, {answer.result.text, answer.result.textLength});
    outcome.rows = answer.result.rowCount;
    outcome.bytes = answer.result.textLength;
  } else {
    write_tool_failure(request, answer.message, answer.structured);
  }
  write_audit_record(context.audit, context.policy, outcome);
}

}  // namespace

bool run_tools_call(const JsonDoc& doc, int id, int params, ToolContext& context,
                    ToolOutcome& outcome, RpcError& error) {
  char name[kToolNameCapacity];
  if (!read_params(doc, params, name, context, error)) return false;
  open_audit_context(context.audit, doc, id, name);
  const Tool* const tool = find_tool(name);
  const ToolCall call{
      .doc = doc, .arguments = json_find(doc, params, "arguments"), .trace = context.trace};
  ToolAnswer& answer = outcome.answer;
  outcome.success = check_policy_valid(context, answer) &&
                    check_read_switch(tool, context, answer) &&
                    check_provider_switch(tool, context, answer);
  if (!outcome.success) return true;
  if (!exists(tool, context.policy)) {
    trace_missing_tool(tool, doc, params, context);
    return refuse(error, kInvalidParams, "unknown Vantreo tool");
  }
  outcome.success = serve(*tool, call, context, answer);
  return true;
}

bool handle_tools_call(const JsonDoc& doc, int id, int params, ToolContext& context,
                       RpcError& error) {
  ToolOutcome outcome;
  if (!run_tools_call(doc, id, params, context, outcome, error)) return false;
  finish({.doc = &doc, .token = id}, context, outcome.answer, outcome.success);
  return true;
}

}  // namespace kova

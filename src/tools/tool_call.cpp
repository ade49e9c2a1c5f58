#include "tools/tool_call.h"

#include <string_view>

#include "json/reply.h"
#include "policy/predicates.h"
#include "tools/tool_args.h"
#include "tools/tool_result.h"
#include "tools/tool_table.h"

namespace kova {

namespace {

constexpr std::string_view kReadsDisabled = "read tools are disabled by policy";

/// What the gates look at: the call, the tool that its name means (null for none), and the records.
struct Gate {
  const ToolCall& call;
  const Tool* tool;
  ToolContext& context;

  [[nodiscard]] bool asks_for(std::uint32_t gate) const {
    return tool != nullptr && (tool->gates & gate) != 0;
  }
  [[nodiscard]] bool refuse(std::string_view decision, std::string_view message) const {
    refuse_tool(call, context, decision, message);
    return false;
  }
};

void open_audit_context(AuditContext& audit, const JsonDoc& doc, int id, std::string_view tool) {
  audit = {};
  TextOut(audit.tool).copy_cut(tool);
  TextOut(audit.policy_decision).copy_cut(kAllow);
  if (!json_get_scalar_text(doc, id, audit.correlation_id)) {
    TextOut(audit.correlation_id).copy_cut("invalid");
  }
  audit.started_ms = tick_ms();
}

bool check_policy_valid(const Gate& gate) {
  const McpPolicy& policy = gate.context.policy;
  if (policy.valid) return true;
  const std::string_view error(policy.error);
  return gate.refuse(kDeny, error.empty() ? "MCP policy is invalid" : error);
}

// Everything but the write tool is a read here, a name that no tool has included.
bool check_read_switch(const Gate& gate) {
  const McpPolicy& policy = gate.context.policy;
  if (!policy.configured || policy.reads_enabled || gate.asks_for(kWriteTool)) return true;
  return gate.refuse(kDeny, kReadsDisabled);
}

bool check_provider_switch(const Gate& gate) {
  if (!gate.asks_for(kProviderTool) || policy_provider_reads_allowed(gate.context.policy)) {
    return true;
  }
  return gate.refuse(kKillSwitch,
                     "provider-backed MCP reads are disabled by policy or kill switch");
}

bool check_collection(const Gate& gate) {
  if (!gate.asks_for(kCollectionTool)) return true;
  char collection[kSafeNameCapacity];
  if (get_string_member(gate.call.doc, gate.call.arguments, "collection", collection) &&
      policy_collection_allowed(gate.context.policy, collection)) {
    return true;
  }
  return gate.refuse(kDeny, "collection is invalid or not allowed by MCP policy");
}

bool check_provider_status(const Gate& gate) {
  if (!gate.asks_for(kProviderStatus) ||
      json_find(gate.call.doc, gate.call.arguments, "provider") < 0 ||
      policy_provider_reads_allowed(gate.context.policy)) {
    return true;
  }
  return gate.refuse(kKillSwitch, "provider status is disabled by policy or kill switch");
}

bool hybrid_columns_allowed(const Gate& gate, int columns) {
  const JsonDoc& doc = gate.call.doc;
  const int end = json_skip(doc, columns);
  for (int element = columns + 1; element < end; element = json_skip(doc, element)) {
    char column[kSafeNameCapacity];
    if (!json_get_string(doc, element, column) ||
        !policy_column_allowed(gate.context.policy, column)) {
      return false;
    }
  }
  return true;
}

// The decision stays "allow" here: these are read as argument errors of the one tool.
bool check_hybrid_source(const Gate& gate) {
  if (!gate.asks_for(kHybridTool)) return true;
  const JsonDoc& doc = gate.call.doc;
  const McpPolicy& policy = gate.context.policy;
  char source_table[kSafeNameCapacity];
  char key_field[kSafeNameCapacity];
  if (!get_string_member(doc, gate.call.arguments, "source_table", source_table) ||
      !policy_table_allowed(policy, source_table, TableUse::kRead) ||
      !get_string_member(doc, gate.call.arguments, "key_field", key_field) ||
      !policy_column_allowed(policy, key_field)) {
    return gate.refuse(kAllow, "hybrid source table or key is denied by MCP policy");
  }
  const int columns = json_find(doc, gate.call.arguments, "columns");
  if (!doc.is(columns, JsonType::kArray)) return gate.refuse(kAllow, "hybrid columns are invalid");
  return hybrid_columns_allowed(gate, columns) ||
         gate.refuse(kAllow, "hybrid column is denied by MCP policy");
}

bool passes_gates(const Gate& gate) {
  return check_policy_valid(gate) && check_read_switch(gate) && check_provider_switch(gate) &&
         check_collection(gate) && check_provider_status(gate) && check_hybrid_source(gate);
}

}  // namespace

void handle_tools_call(const JsonDoc& doc, int id, int params, ToolContext& context) {
  const RequestId request{.doc = &doc, .token = id};
  if (!check_allowed_members(doc, params, {"name", "arguments", "_meta"})) {
    write_error_reply(request, kInvalidParams,
                      "tools/call params are invalid or contain unknown fields");
    return;
  }
  char name[kToolNameCapacity];
  if (!get_string_member(doc, params, "name", name)) {
    write_error_reply(request, kInvalidParams, "tools/call requires a valid tool name");
    return;
  }
  const ToolCall call{.doc = doc, .id = id, .arguments = json_find(doc, params, "arguments")};
  open_audit_context(context.audit, doc, id, name);
  const Tool* const tool = find_tool(name);
  if (!passes_gates({.call = call, .tool = tool, .context = context})) return;
  if (tool == nullptr) {
    refuse_unknown_tool(call);
    return;
  }
  tool->handler(call, context);
}

}  // namespace kova

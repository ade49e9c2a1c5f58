// Tool results: their envelopes, and the audit record that each one leaves after its line is out.
#pragma once

#include <cstdint>
#include <string_view>

#include "db/statement.h"
#include "json/reply.h"
#include "tools/tool_call.h"

namespace kova {

// Values of AuditContext::policy_decision.
inline constexpr std::string_view kAllow = "allow";
inline constexpr std::string_view kDeny = "deny";
inline constexpr std::string_view kKillSwitch = "kill_switch";

/// Sets what the record says of the policy's part in the call.
void set_decision(ToolContext& context, std::string_view decision);
/// Sets what the record says the call touches; cut to 128 characters.
void set_objects(ToolContext& context, std::string_view objects);

/// The id that the call's reply echoes.
[[nodiscard]] RequestId request_id(const ToolCall& call);

/// Leaves the record of a call whose failure has been answered.
void audit_failure(const ToolContext& context);

/// Answers as for a name that no tool has. Leaves no record.
void refuse_unknown_tool(const ToolCall& call);

/// Answers with a failed tool result that carries the message.
void write_tool_error(const ToolCall& call, ToolContext& context, std::string_view message);

/// The same, with the decision set before it.
void refuse_tool(const ToolCall& call, ToolContext& context, std::string_view decision,
                 std::string_view message);

/// Answers with a result's JSON text, both as text content and as structured content.
void write_tool_success(const ToolCall& call, ToolContext& context, std::string_view json,
                        std::uint32_t rows);

/// Runs one statement and answers with its result or its failure. `sql` is NUL-terminated.
void respond_with_statement(const ToolCall& call, ToolContext& context, const char* sql,
                            std::uint32_t max_rows);

}  // namespace kova

// What a tool is: a row of the table, the call that it serves, the records that it works on, and
// the result or message that it leaves. The frame (tool_call.h) writes the reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "audit/audit.h"
#include "base/text.h"
#include "db/session.h"
#include "db/statement.h"
#include "json/json.h"
#include "policy/policy.h"
#include "policy/sql_words.h"

namespace kova {

/// Where a call was decided; kept when a call is only judged.
struct CallTrace {
  CheckTrace check;
  int token = -1;  ///< the key or the value that decided, when it is no statement
};

/// One tools/call that has passed the protocol's checks. `arguments` is an index into `doc`, -1
/// when the member is absent.
struct ToolCall {
  const JsonDoc& doc;
  int arguments;
  CallTrace* trace = nullptr;  ///< the context's

  /// Sets the key or the value for which the arguments are refused, -1 when there is none. Returns
  /// false.
  bool blame(int token) const {
    if (trace != nullptr) trace->token = token;
    return false;
  }
  /// The same with a member's value, or what stands in the place of the arguments and is no object.
  bool blame_member(std::string_view key) const {
    if (trace == nullptr) return false;
    const bool has_members = doc.is(arguments, JsonType::kObject);
    return blame(has_members ? json_find(doc, arguments, key) : arguments);
  }
};

/// The process-wide records that tools work on.
struct ToolContext {
  const McpPolicy& policy;
  AuditContext& audit;
  DbSession& session;
  /// Not null when the call is only judged: no approval is used up. Whoever judges also closes the
  /// session's guard, so that no statement is sent.
  CallTrace* trace = nullptr;
};

/// Where the trace of the context's statement is to be set, or null.
[[nodiscard]] inline CheckTrace* check_trace(ToolContext& context) {
  return context.trace != nullptr ? &context.trace->check : nullptr;
}

/// Sets the check that the call has come to and the value that is to blame if it refuses it.
inline void trace_call(ToolContext& context, std::string_view check, int token = -1) {
  if (context.trace != nullptr) *context.trace = {.check = {.check = check}, .token = token};
}

/// The same with a member of the tool's arguments as the value.
inline void trace_argument(ToolContext& context, std::string_view check, const ToolCall& call,
                           std::string_view key) {
  trace_call(context, check);
  static_cast<void>(call.blame_member(key));
}

/// What a tool's check and handler leave: a result after a success, a message after a failure.
struct ToolAnswer {
  static constexpr std::size_t kStructuredCapacity = 512;

  StatementResult result;
  char message[kStatementErrorCapacity] = {};
  /// JSON that a failure carries beside its message, or empty.
  char structured[kStructuredCapacity] = {};
};

/// Part of a tool's work. False leaves the message.
using ToolStep = bool (*)(const ToolCall& call, ToolContext& context, ToolAnswer& answer);

/// What the policy must allow before a tool is listed and served.
enum class ToolAccess { kRead, kProviderRead, kWrite };

struct Tool {
  std::string_view name;
  std::string_view description;
  std::string_view input_schema;
  ToolAccess access;
  ToolStep check;  ///< the tool's own question to the policy, asked before its handler; may be null
  ToolStep handler;
};

// Values of AuditContext::policy_decision.
inline constexpr std::string_view kAllow = "allow";
inline constexpr std::string_view kDeny = "deny";
inline constexpr std::string_view kKillSwitch = "kill_switch";
inline constexpr std::string_view kApprovalRequired = "approval_required";
inline constexpr std::string_view kApprovalAccepted = "approval_accepted";

/// Sets what the audit record says of the policy's part in the call.
void set_decision(ToolContext& context, std::string_view decision);
/// Sets what the audit record says the call touches; cut to 128 characters.
void set_objects(ToolContext& context, std::string_view objects);

/// Refuses with this decision of the policy: sets it, leaves the message and returns false.
bool refuse_by_policy(ToolContext& context, ToolAnswer& answer, std::string_view decision,
                      std::string_view message);

/// Runs one statement, whose result is the tool's. `sql` is NUL-terminated, `max_rows` 1 to 256.
[[nodiscard]] bool respond_with_statement(ToolContext& context, const char* sql,
                                          std::uint32_t max_rows, ToolAnswer& answer);

}  // namespace kova

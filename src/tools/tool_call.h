// The frame of tools/call: the ordered checks that all tools share, then the tool itself.
#pragma once

#include "audit/audit.h"
#include "db/session.h"
#include "json/json.h"
#include "policy/policy.h"

namespace kova {

inline constexpr std::size_t kToolNameCapacity = 129;

/// The process-wide records that tools work on.
struct ToolContext {
  const McpPolicy& policy;
  AuditContext& audit;
  DbSession& session;
};

/// One tools/call that has passed the protocol's checks. The tokens are indices into `doc`;
/// `arguments` is -1 when the member is absent.
struct ToolCall {
  const JsonDoc& doc;
  int id;
  int arguments;
};

/// Answers one tools/call, given the index of the request's id and of its params (-1 when absent):
/// exactly one reply line, and an audit record when the reply is a tool result.
void handle_tools_call(const JsonDoc& doc, int id, int params, ToolContext& context);

}  // namespace kova

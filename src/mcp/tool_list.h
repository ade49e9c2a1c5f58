// The reply to tools/list.
#pragma once

#include "json/reply.h"
#include "policy/policy.h"
#include "tools/tool.h"

namespace kova {

/// Whether a client sees the tool.
[[nodiscard]] bool is_listed(const Tool& tool, const McpPolicy& policy);

/// Writes one reply line with the tools that the policy lets the client use.
void write_tool_list(RequestId id, const McpPolicy& policy);

}  // namespace kova

// The reply to tools/list.
#pragma once

#include "json/reply.h"
#include "policy/policy.h"

namespace kova {

/// Writes one reply line with the tools that the policy lets the client use.
void write_tool_list(RequestId id, const McpPolicy& policy);

}  // namespace kova

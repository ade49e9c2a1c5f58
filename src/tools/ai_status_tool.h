// kova_ai_status: the state of a collection, its jobs and, if asked for, a provider.
#pragma once

#include "tools/tool.h"

namespace kova {

/// Whether the policy lets the collection, and the provider when the call names one, be asked
/// about.
[[nodiscard]] bool check_ai_status(const ToolCall& call, ToolContext& context, ToolAnswer& answer);
[[nodiscard]] bool ai_status_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer);

}  // namespace kova

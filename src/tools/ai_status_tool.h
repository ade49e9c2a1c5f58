// kova_ai_status: the state of a collection, its jobs and, if asked for, a provider.
#pragma once

#include "tools/tool_call.h"

namespace kova {

void ai_status_tool(const ToolCall& call, ToolContext& context);

}  // namespace kova

// kova_execute: one write, run as its canonical text, with an operator's approval where the policy
// wants one.
#pragma once

#include "tools/tool_call.h"

namespace kova {

void execute_tool(const ToolCall& call, ToolContext& context);

}  // namespace kova

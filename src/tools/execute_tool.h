// kova_execute: one write, run as its canonical text, with an operator's approval where the policy
// wants one.
#pragma once

#include "tools/tool.h"

namespace kova {

[[nodiscard]] bool execute_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer);

}  // namespace kova

// The nine tools: what is listed and what is called, in one table.
#pragma once

#include <span>
#include <string_view>

#include "tools/tool.h"

namespace kova {

/// In the order of tools/list.
[[nodiscard]] std::span<const Tool> tool_table();

/// The tool of this exact name, or null.
[[nodiscard]] const Tool* find_tool(std::string_view name);

}  // namespace kova

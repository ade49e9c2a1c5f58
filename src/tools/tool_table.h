// The nine tools: what is listed and what is called, in one table.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "tools/tool_call.h"

namespace kova {

using ToolHandler = void (*)(const ToolCall& call, ToolContext& context);

/// What decides whether a tool is listed and served.
enum ToolGate : std::uint32_t {
  kReadTool = 1,         ///< listed and served when reads are enabled
  kProviderTool = 2,     ///< needs provider reads
  kCollectionTool = 4,   ///< its `collection` must be allowed
  kHybridTool = 8,       ///< its source table, key and columns must be allowed
  kProviderStatus = 16,  ///< its `provider`, when there, needs provider reads
  kWriteTool = 32,       ///< listed and served when writes are allowed
};

struct Tool {
  std::string_view name;
  std::string_view description;
  std::string_view input_schema;
  std::uint32_t gates;
  ToolHandler handler;
};

/// In the order of tools/list.
[[nodiscard]] std::span<const Tool> tool_table();

/// The tool of this exact name, or null.
[[nodiscard]] const Tool* find_tool(std::string_view name);

}  // namespace kova

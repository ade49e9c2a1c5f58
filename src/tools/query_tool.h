// kova_query: one read-only SELECT.
#pragma once

#include <cstdint>

#include "tools/tool.h"

namespace kova {

inline constexpr std::uint32_t kDefaultMaxRows = 100;

[[nodiscard]] bool query_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer);

/// Ends the statement with ";": where its last byte that is no white space is one, the text stays
/// as it is, otherwise the ";" follows that byte and ends the text. `sql` is NUL-terminated and
/// has room for one more byte than kStatementLimit. False when the ";" would be the 32,769th byte.
[[nodiscard]] bool terminate_statement(char* sql);

}  // namespace kova

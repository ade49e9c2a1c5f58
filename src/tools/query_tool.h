// kova_query: one read-only SELECT.
#pragma once

#include <string_view>

#include "tools/tool_call.h"

namespace kova {

inline constexpr std::uint32_t kDefaultMaxRows = 100;

void query_tool(const ToolCall& call, ToolContext& context);

/// The lexical screen before the policy's own check: one statement that begins with SELECT, no
/// comment, no open literal and none of the forbidden words. Double quotes are no literals here.
[[nodiscard]] bool quick_select_check(std::string_view sql);

/// Ends the statement with ";": where its last byte that is no white space is one, the text stays
/// as it is, otherwise the ";" follows that byte and ends the text. `sql` is NUL-terminated and
/// has room for one more byte than kStatementLimit. False when the ";" would be the 32,769th byte.
[[nodiscard]] bool terminate_statement(char* sql);

}  // namespace kova

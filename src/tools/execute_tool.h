// kova_execute: one write, run as its canonical text, with an operator's approval where the policy
// wants one.
#pragma once

#include <string_view>

#include "base/text.h"
#include "json/json.h"
#include "tools/tool.h"

namespace kova {

/// The message for arguments that read_write_sql does not take.
inline constexpr std::string_view kWriteArgumentsMessage =
    "kova_execute requires bounded SQL and rejects unknown arguments";

/// Takes the statement out of the tool's arguments. False when they are no object, have an unknown
/// member or no text `sql` that fits `out`.
[[nodiscard]] bool read_write_sql(const ToolCall& call, TextOut sql);

[[nodiscard]] bool execute_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer);

}  // namespace kova

// kova_list_databases, kova_list_tables, kova_describe_table. With a policy the lists are the
// policy's own names: a client never learns of a database or table that the policy does not name.
#pragma once

#include "tools/tool.h"

namespace kova {

[[nodiscard]] bool list_databases_tool(const ToolCall& call, ToolContext& context,
                                       ToolAnswer& answer);
[[nodiscard]] bool list_tables_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer);
[[nodiscard]] bool describe_table_tool(const ToolCall& call, ToolContext& context,
                                       ToolAnswer& answer);

}  // namespace kova

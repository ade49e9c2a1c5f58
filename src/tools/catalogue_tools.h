// kova_list_databases, kova_list_tables, kova_describe_table. With a policy the lists are the
// policy's own names: a client never learns of a database or table that the policy does not name.
#pragma once

#include "tools/tool_call.h"

namespace kova {

void list_databases_tool(const ToolCall& call, ToolContext& context);
void list_tables_tool(const ToolCall& call, ToolContext& context);
void describe_table_tool(const ToolCall& call, ToolContext& context);

}  // namespace kova

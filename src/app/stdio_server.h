// The MCP stdio transport: one message per line.
#pragma once

#include "app/line_reader.h"
#include "mcp/dispatcher.h"
#include "tools/tool.h"

namespace kova {

/// Serves until the end of input. A tools/call with an id goes to a child process; while it runs,
/// a matching cancel ends it and everything else is refused as busy.
void run_stdio_server(LineReader& lines, ProtocolState& state, ToolContext& tools);

}  // namespace kova

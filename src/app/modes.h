// The modes of the executable. Each returns the exit code.
#pragma once

#include "app/line_reader.h"
#include "mcp/dispatcher.h"
#include "platform/large_block.h"
#include "tools/tool.h"

namespace kova {

/// What every mode is given.
struct Startup {
  LargeBlock& line_buffer;  ///< kLineBufferCapacity bytes
  ProtocolState& protocol;
  ToolContext& tools;
  const char* operand;  ///< the argument after the mode's own, null for none
};

[[nodiscard]] int stdio_mode(const Startup& startup);
[[nodiscard]] int check_policy_mode(const Startup& startup);
[[nodiscard]] int check_config_mode(const Startup& startup);
[[nodiscard]] int tool_worker_mode(const Startup& startup);
[[nodiscard]] int issue_approval_mode(const Startup& startup);
/// The operand is the port.
[[nodiscard]] int http_mode(const Startup& startup);

}  // namespace kova

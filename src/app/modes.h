// The modes of the executable. Each answers the exit code.
#pragma once

#include "app/line_reader.h"
#include "mcp/dispatcher.h"

namespace kova {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 2;

/// What start-up has made ready for every mode.
struct Startup {
  char* line_buffer;
  ProtocolState& protocol;
  ToolContext& tools;
};

[[nodiscard]] int stdio_mode(const Startup& startup);
[[nodiscard]] int check_policy_mode(const Startup& startup);
[[nodiscard]] int check_config_mode(const Startup& startup);
[[nodiscard]] int tool_worker_mode(const Startup& startup);
[[nodiscard]] int issue_approval_mode(const Startup& startup);

}  // namespace kova

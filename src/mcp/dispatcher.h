// JSON-RPC 2.0: one message in, at most one reply line out.
#pragma once

#include <cstddef>
#include <string_view>

#include "mcp/request_ids.h"
#include "tools/tool.h"

namespace kova {

/// A method's name and a terminator; a message with a longer one has no method.
inline constexpr std::size_t kMethodCapacity = 96;

/// The protocol's state in this process. Used by one thread.
struct ProtocolState {
  bool Initialized = false;
  RequestIdRegistry request_ids;
};

/// Serves one message (a line without its line end) and writes its reply; a notification has none.
void dispatch(std::string_view message, ProtocolState& state, ToolContext& tools);

}  // namespace kova

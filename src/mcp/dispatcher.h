// JSON-RPC 2.0: one message in, at most one reply line out.
#pragma once

#include <string_view>

#include "mcp/request_ids.h"
#include "tools/tool_call.h"

namespace kova {

/// The protocol's state in this process. Used by one thread.
struct ProtocolState {
  bool Initialized = false;
  RequestIdRegistry request_ids;
};

/// Answers one message (a line without its line end). A notification gets no answer.
void dispatch(std::string_view message, ProtocolState& state, ToolContext& tools);

}  // namespace kova

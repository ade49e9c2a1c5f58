// The frame of tools/call: the ordered checks that all tools share, the tool itself, and the one
// place that writes its reply and its audit record.
#pragma once

#include <cstddef>

#include "json/json.h"
#include "json/reply.h"
#include "tools/tool.h"

namespace kova {

inline constexpr std::size_t kToolNameCapacity = 129;

/// How a call has ended that got as far as a tool result.
struct ToolOutcome {
  ToolAnswer answer;
  bool success = false;
};

/// Runs one tools/call up to the result that its reply would carry; arguments and return value are
/// those of handle_tools_call.
[[nodiscard]] bool run_tools_call(const JsonDoc& doc, int id, int params, ToolContext& context,
                                  ToolOutcome& outcome, RpcError& error);

/// Serves one tools/call, given the indices of the request's id and of its params (-1 when absent).
/// True when the call has ended in a tool result: exactly one reply line is written, then an audit
/// record. False leaves the error for the reply.
[[nodiscard]] bool handle_tools_call(const JsonDoc& doc, int id, int params, ToolContext& context,
                                     RpcError& error);

}  // namespace kova

// JSON-RPC 2.0: one message in, at most one reply line out.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/heap_array.h"
#include "base/text.h"
#include "json/json.h"
#include "json/reply.h"
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

/// Parses one message. False leaves the error of its reply.
[[nodiscard]] bool parse_message(std::string_view message, const HeapArray<JsonToken>& tokens,
                                 JsonDoc& doc, RpcError& error);

/// The checks of every message, in their order: version, method, id. `id` is the index of the id,
/// -1 when the message has none; it is used up. False leaves the error of the reply.
[[nodiscard]] bool check_message(const JsonDoc& doc, int id, ProtocolState& state, TextOut method,
                                 RpcError& error);

/// Serves one message (a line without its line end) and writes its reply; a notification has none.
void dispatch(std::string_view message, ProtocolState& state, ToolContext& tools);

}  // namespace kova

// The first look at a message, by the thread that reads: does it start, or cancel, a tool call?
#pragma once

#include <cstddef>
#include <string_view>

#include "json/reply.h"

namespace kova {

/// An id as it was received, and a terminator.
inline constexpr std::size_t kRawIdCapacity = 100;

struct Prescan {
  bool is_tool_call = false;
  bool is_cancel = false;
  char raw_id[kRawIdCapacity] = {};     ///< empty when absent or over-long
  char cancelled_id[kIdCapacity] = {};  ///< the cancel's requestId, decoded
};

/// Returns an empty record for a message that does not parse, that has no method of at most 95
/// bytes, or whose id has over 99 characters. Does not check the envelope or duplicate keys.
[[nodiscard]] Prescan prescan(std::string_view message);

}  // namespace kova

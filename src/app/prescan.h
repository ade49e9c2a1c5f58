// The first look at a message, by the thread that reads: does it start, or cancel, a tool call?
#pragma once

#include <cstddef>
#include <string_view>

#include "json/reply.h"

namespace kova {

/// The room for an id as it was received, with its terminator.
inline constexpr std::size_t kRawIdCapacity = 100;

struct Prescan {
  bool is_tool_call = false;
  bool is_cancel = false;
  char raw_id[kRawIdCapacity] = {};     ///< empty when absent or over-long
  char cancelled_id[kIdCapacity] = {};  ///< the cancel's requestId, decoded
};

/// Everything is clear and empty for a message that is no JSON object with a short method, and for
/// one whose id has over 99 characters. The envelope and duplicate keys are not looked at.
[[nodiscard]] Prescan prescan(std::string_view message);

}  // namespace kova

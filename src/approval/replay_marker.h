// Replay markers: the files that make a token single-use.
#pragma once

#include <string_view>

#include "base/text.h"
#include "policy/policy.h"

namespace kova {

/// Uses a nonce up by creating its marker in the policy's state directory. False, with the
/// message, when the marker is there already or cannot be created for whatever reason: a write
/// never goes through without one. Markers are never removed here.
[[nodiscard]] bool consume_nonce(const McpPolicy& policy, std::string_view nonce, TextOut message);

}  // namespace kova

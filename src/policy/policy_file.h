// Loading the policy from the file that KOVA_MCP_POLICY names.
#pragma once

#include <cstddef>

#include "policy/policy.h"

namespace kova {

/// Bytes of the file.
inline constexpr std::size_t kPolicyFileLimit = 65536;
/// JSON tokens of the file.
inline constexpr int kPolicyTokenCapacity = 1024;

/// Fills the record from the environment and the file that it names. Without a file the record is
/// valid, unconfigured and has its defaults. False leaves it invalid, with the message of the
/// first check that failed in `error`. Called once, before anything is served.
[[nodiscard]] bool policy_load(McpPolicy& policy);

}  // namespace kova

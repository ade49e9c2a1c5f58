// Loading the policy from the file that KOVA_MCP_POLICY names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

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

/// What a tool for the authors of policies wants and learns beside the verdict.
struct PolicyReading {
  /// The file is for another launch: its identity is not compared with this environment's.
  bool any_launch = false;
  /// The file is for another machine: the state directory's path is not examined.
  bool any_machine = false;
  /// The place of the key that a refusal speaks of, or where the text stops being JSON: both count
  /// from 1, columns in bytes, a key's at its opening quotation mark. 0 when there is no place.
  std::uint32_t line = 0;
  std::uint32_t column = 0;
};

/// Fills the record as policy_load does, from the bytes of a file.
[[nodiscard]] bool policy_read(std::string_view bytes, McpPolicy& policy, PolicyReading& reading);

}  // namespace kova

// Yes-or-no questions to the policy, and the kill switches. Kill switches are read at each call;
// everything else is pure. All return false for an invalid policy.
#pragma once

#include <string_view>

#include "policy/policy.h"

namespace kova {

inline constexpr char kDisableProviders[] = "KOVA_MCP_DISABLE_PROVIDERS";
inline constexpr char kDisableWrites[] = "KOVA_MCP_DISABLE_WRITES";

/// Why a call is refused under an invalid policy that names no reason of its own.
inline constexpr std::string_view kPolicyInvalid = "MCP policy is invalid";
/// Why a tool that reads is refused where policy_reads_allowed is false.
inline constexpr std::string_view kReadsDisabled = "read tools are disabled by policy";

enum class TableUse { kRead, kWrite };

/// Whether the variable is exactly "1", or "true", "yes" or "on" ignoring case.
[[nodiscard]] bool policy_env_flag(const char* variable);

/// Whether the tools that read exist at all.
[[nodiscard]] bool policy_reads_allowed(const McpPolicy& policy);

/// Reading needs `reads_enabled` and a place in `allowed_tables`, writing one in `write_tables`.
/// Without a policy file every safe name may be read and none written.
[[nodiscard]] bool policy_table_allowed(const McpPolicy& policy, std::string_view name,
                                        TableUse use);
[[nodiscard]] bool policy_column_allowed(const McpPolicy& policy, std::string_view name);
[[nodiscard]] bool policy_collection_allowed(const McpPolicy& policy, std::string_view name);

/// Does not look at `reads_enabled`.
[[nodiscard]] bool policy_provider_reads_allowed(const McpPolicy& policy);

/// Whether the write tool exists at all; never without a policy file.
[[nodiscard]] bool policy_writes_allowed(const McpPolicy& policy);

}  // namespace kova

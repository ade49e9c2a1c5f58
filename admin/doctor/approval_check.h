// What approvals rest on: the secret that signs them, and the folder that makes them single-use.
#pragma once

#include <string>
#include <string_view>

#include "admin/doctor/check.h"
#include "policy/policy.h"

namespace kova::admin {

inline constexpr std::string_view kApprovalSecretCheck = "approval.secret";

/// Judges the secret: that it is there where it is needed, its length and strength, and who may
/// read the environment file that it stands in (none for the process's environment).
[[nodiscard]] Check check_approval_secret(const McpPolicy& policy,
                                          const std::string& environment_file);

/// Judges the state directory: that it is there, that markers can be created in it once and stored,
/// and who may delete them.
[[nodiscard]] Check check_approval_directory(const McpPolicy& policy);

/// What makes a secret easy to guess; empty for one that was drawn at random.
[[nodiscard]] std::string weakness_of(std::string_view secret);

}  // namespace kova::admin

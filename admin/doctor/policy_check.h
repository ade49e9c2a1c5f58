// The policy, by the loader that serves.
#pragma once

#include "admin/doctor/check.h"
#include "policy/policy.h"

namespace kova::admin {

/// Loads the policy that the environment names into `policy` and judges it.
[[nodiscard]] Check check_policy(McpPolicy& policy);

/// Whether writes need tokens under this policy, as far as it could be loaded.
[[nodiscard]] bool needs_approvals(const McpPolicy& policy);

}  // namespace kova::admin

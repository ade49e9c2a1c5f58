// Several deployments that are judged together.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "admin/common/secret_text.h"
#include "admin/doctor/check.h"

namespace kova::admin {

/// One deployment with its checks, and what its approval tokens are good for.
struct ExaminedDeployment {
  std::string environment_file;  ///< empty for the process's environment
  std::string policy;            ///< the policy's name, empty when none could be read
  SecretText secret;             ///< of the approvals, empty without one
  std::vector<Check> checks;
};

/// Warns in `approval.secret` of each deployment whose policy's name and secret another one has,
/// too: a token that was issued for one of them is good on the other.
void judge_shared_names(std::span<ExaminedDeployment> deployments);

/// The checks of all in their order. With several deployments each detail begins with the
/// environment file that it speaks of.
[[nodiscard]] std::vector<Check> all_checks(std::span<const ExaminedDeployment> deployments);

}  // namespace kova::admin

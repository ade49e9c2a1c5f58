#include "admin/doctor/deployments.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "admin/doctor/approval_check.h"
#include "base/secret.h"

namespace kova::admin {

namespace {

constexpr std::string_view kOnePolicyNameEach =
    "give each host's policy a name of its own, or a secret of its own";

bool take_the_same_tokens(const ExaminedDeployment& a, const ExaminedDeployment& b) {
  return !a.policy.empty() && a.policy == b.policy && !a.secret.view().empty() &&
         equal_constant_time(a.secret.view(), b.secret.view());
}

void warn_of(ExaminedDeployment& deployment, const ExaminedDeployment& other) {
  const auto check = std::ranges::find(deployment.checks, kApprovalSecretCheck, &Check::name);
  if (check == deployment.checks.end()) return;
  Findings findings(std::move(*check));
  findings.warn(fmt::format("{} has the policy name \"{}\" and the same secret: a token of one is "
                            "good on the other",
                            other.environment_file, other.policy),
                kOnePolicyNameEach);
  *check = findings.finish();
}

}  // namespace

void judge_shared_names(std::span<ExaminedDeployment> deployments) {
  for (ExaminedDeployment& deployment : deployments) {
    for (const ExaminedDeployment& other : deployments) {
      if (&other != &deployment && take_the_same_tokens(deployment, other)) {
        warn_of(deployment, other);
      }
    }
  }
}

std::vector<Check> all_checks(std::span<const ExaminedDeployment> deployments) {
  std::vector<Check> checks;
  for (const ExaminedDeployment& deployment : deployments) {
    for (const Check& check : deployment.checks) {
      checks.push_back(check);
      if (deployments.size() < 2) continue;
      checks.back().detail = fmt::format("{}: {}", deployment.environment_file, check.detail);
    }
  }
  return checks;
}

}  // namespace kova::admin

// Several deployments that are judged together.
#include "admin/doctor/deployments.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kova::admin {
namespace {

ExaminedDeployment examined(const std::string& file, const std::string& policy,
                            std::string_view secret) {
  return {.environment_file = file,
          .policy = policy,
          .secret = SecretText(secret),
          .checks = {{.name = "policy", .status = CheckStatus::kOk, .detail = "p", .advice = ""},
                     {.name = "approval.secret",
                      .status = CheckStatus::kOk,
                      .detail = "40 bytes",
                      .advice = ""}}};
}

/// The status of each deployment's `approval.secret`, as "ok", "warn" or "fail".
std::vector<std::string> statuses(std::vector<ExaminedDeployment>& deployments) {
  judge_shared_names(deployments);
  std::vector<std::string> found;
  for (const ExaminedDeployment& deployment : deployments) {
    EXPECT_EQ(deployment.checks[0].status, CheckStatus::kOk);
    found.emplace_back(status_name(deployment.checks[1].status));
  }
  return found;
}

std::vector<std::string> statuses_of(const std::string& policy, std::string_view secret) {
  std::vector<ExaminedDeployment> deployments;
  deployments.push_back(examined("/a", "sales", "secret"));
  deployments.push_back(examined("/b", policy, secret));
  return statuses(deployments);
}

using Found = std::vector<std::string>;

TEST(JudgeSharedNames, ANameAndASecretTogetherAreShared) {
  EXPECT_EQ(statuses_of("sales", "secret"), (Found{"warn", "warn"}));
  EXPECT_EQ(statuses_of("stock", "secret"), (Found{"ok", "ok"}));
  EXPECT_EQ(statuses_of("Sales", "secret"), (Found{"ok", "ok"}));
  EXPECT_EQ(statuses_of("sales", "secreT"), (Found{"ok", "ok"}));
  EXPECT_EQ(statuses_of("sales", "secret2"), (Found{"ok", "ok"}));
}

TEST(JudgeSharedNames, WhatIsNotThereIsNotShared) {
  for (const auto& [policy, secret] : {std::pair{"", "secret"}, std::pair{"sales", ""}}) {
    std::vector<ExaminedDeployment> deployments;
    deployments.push_back(examined("/a", policy, secret));
    deployments.push_back(examined("/b", policy, secret));
    EXPECT_EQ(statuses(deployments), (Found{"ok", "ok"}));
  }
}

TEST(JudgeSharedNames, NamesEachOfTheOthers) {
  std::vector<ExaminedDeployment> deployments;
  for (const char* file : {"/a", "/b", "/c"}) deployments.push_back(examined(file, "s", "secret"));
  EXPECT_EQ(statuses(deployments), (Found{"warn", "warn", "warn"}));
  const Check& check = deployments[1].checks[1];
  EXPECT_EQ(check.detail,
            "40 bytes; /a has the policy name \"s\" and the same secret: a token of one is good on "
            "the other; /c has the policy name \"s\" and the same secret: a token of one is good "
            "on the other");
  EXPECT_NE(check.advice, "");
  EXPECT_EQ(check.detail.find("secret2"), std::string::npos);
}

TEST(AllChecks, BeginWithTheirFileWhereThereAreSeveral) {
  std::vector<ExaminedDeployment> deployments;
  deployments.push_back(examined("/a", "s", ""));
  EXPECT_EQ(all_checks(deployments).at(1).detail, "40 bytes");
  deployments.push_back(examined("/b", "s", ""));
  const std::vector<Check> checks = all_checks(deployments);
  ASSERT_EQ(checks.size(), 4U);
  EXPECT_EQ(checks[1].detail, "/a: 40 bytes");
  EXPECT_EQ(checks[3].detail, "/b: 40 bytes");
  EXPECT_EQ(checks[3].name, "approval.secret");
}

}  // namespace
}  // namespace kova::admin

// The rules that need to know the engine's columns.
#include "admin/policy/lint_rules.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "unit/policy/policy_document.h"

namespace kova::admin {
namespace {

using kova::testing::fill;

/// Nothing is written and no column denied.
std::unique_ptr<McpPolicy> reading_policy() {
  auto policy = kova::testing::loaded_policy();
  fill(policy->write_tables, {});
  fill(policy->denied_columns, {});
  return policy;
}

std::vector<std::string> rules(const McpPolicy& policy,
                               std::optional<std::vector<TableColumns>> columns) {
  std::vector<std::string> found;
  const LintSubject subject{.file = "no such file", .policy = &policy, .columns = columns};
  for (const LintFinding& finding : lint_policy(subject)) found.push_back(finding.rule);
  return found;
}

const std::vector<TableColumns> kTables = {{.table = "PEOPLE", .columns = {"ID", "e_mail"}},
                                           {.table = "ORDERS", .columns = {"id", "SUM"}}};

TEST(LintRules, PersonalColumnsOfAllowedTables) {
  const auto policy = reading_policy();
  fill(policy->allowed_tables, {"orders"});
  EXPECT_TRUE(rules(*policy, kTables).empty());
  fill(policy->allowed_tables, {"orders", "people"});
  EXPECT_EQ(rules(*policy, kTables), std::vector<std::string>{"no-denied-columns"});
  fill(policy->denied_columns, {"E_MAIL"});
  EXPECT_TRUE(rules(*policy, kTables).empty());
}

TEST(LintRules, TheEngineKnowsBetterThanATablesName) {
  const auto policy = reading_policy();
  fill(policy->allowed_tables, {"USERS"});
  EXPECT_EQ(rules(*policy, std::nullopt), std::vector<std::string>{"no-denied-columns"});
  EXPECT_TRUE(rules(*policy, std::vector<TableColumns>{{"USERS", {"ID"}}}).empty());
  policy->reads_enabled = false;
  EXPECT_TRUE(rules(*policy, std::nullopt).empty());
}

TEST(LintRules, DeniedColumnsThatAreNowhere) {
  const auto policy = reading_policy();
  fill(policy->allowed_tables, {"ORDERS"});
  fill(policy->denied_columns, {"sum", "CARDS", "E_MAIL", "Y"});
  EXPECT_EQ(rules(*policy, kTables),
            (std::vector<std::string>{"unknown-denied-column", "unknown-denied-column"}));
  EXPECT_TRUE(rules(*policy, std::nullopt).empty());
}

}  // namespace
}  // namespace kova::admin

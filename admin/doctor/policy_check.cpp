#include "admin/doctor/policy_check.h"

#include <string>
#include <string_view>

#include <fmt/format.h>

#include "base/ascii.h"
#include "platform/environment.h"
#include "policy/policy_file.h"

namespace kova::admin {

namespace {

void compare(Findings& findings, const char* variable, std::string_view key,
             std::string_view wanted) {
  const EnvironmentValue value(variable);
  if (value.is_set() && equal_ignoring_case(value.view(), wanted)) return;
  const std::string given =
      value.is_set() ? fmt::format("is \"{}\"", value.view()) : std::string("is not set");
  findings.fail(
      fmt::format("{} {}, the policy's {} is \"{}\"", variable, given, key, wanted),
      fmt::format("set {} to \"{}\", or name the policy of that identity", variable, wanted));
}

// The loader reads the policy's names before it compares them, so a refusal before that leaves them
// empty.
void explain_identity(Findings& findings, const McpPolicy& policy) {
  if (policy.database_user[0] == '\0') return;
  compare(findings, "KOVA_MCP_CLIENT_ID", "client_id", policy.client_id);
  compare(findings, "KOVA_MCP_DATABASE", "database", policy.database);
  compare(findings, "KOVA_MCP_USER", "database_user", policy.database_user);
}

std::string advice_for(const McpPolicy& policy) {
  const EnvironmentValue path("KOVA_MCP_POLICY");
  if (policy.approval_state_directory[0] != '\0') {
    return fmt::format("mend {}, or make the folder {}", path.view(),
                       policy.approval_state_directory);
  }
  return fmt::format("mend {}; the policy's documentation explains the message", path.view());
}

void judge_loaded(Findings& findings, const McpPolicy& policy) {
  findings.note(fmt::format("{}: reads {}, writes {}, {} tables, {} collections", policy.name,
                            policy.reads_enabled ? "on" : "off",
                            policy.writes_enabled ? "on" : "off", policy.allowed_tables.count,
                            policy.allowed_collections.count));
  if (policy.writes_enabled && !policy.approval_required) {
    findings.warn("writes run without an operator's approval",
                  "set approval_required to true unless that is meant");
  }
}

}  // namespace

Check check_policy(McpPolicy& policy) {
  Findings findings("policy");
  if (!policy_load(policy)) {
    findings.fail(policy.error, advice_for(policy));
    explain_identity(findings, policy);
  } else if (!policy.configured) {
    findings.warn("KOVA_MCP_POLICY is not set: every table and column may be read",
                  "write a policy and name it by KOVA_MCP_POLICY");
  } else {
    judge_loaded(findings, policy);
  }
  return findings.finish();
}

bool needs_approvals(const McpPolicy& policy) {
  return policy.configured && policy.writes_enabled && policy.approval_required;
}

}  // namespace kova::admin

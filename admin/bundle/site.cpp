#include "admin/bundle/site.h"

#include <fmt/format.h>

#include <memory>

#include "admin/common/deployment.h"
#include "admin/common/file_text.h"
#include "admin/common/refusal.h"
#include "admin/common/utf8.h"
#include "db/session.h"
#include "policy/policy.h"
#include "policy/policy_file.h"
#include "policy/predicates.h"

namespace kova::admin {

namespace {

/// A client puts something else in the place of such a text.
constexpr std::string_view kPlaceholder = "${";

std::string checked_value(const char* variable) {
  std::string value = deployment_value(variable);
  if (value.empty()) throw Refusal(fmt::format("{} is not set", variable));
  if (find_malformed(value) != value.npos) {
    throw Refusal(fmt::format("{} is not UTF-8", variable));
  }
  if (value.find(kPlaceholder) != value.npos) {
    throw Refusal(fmt::format("{} holds \"{}\", which a client replaces", variable, kPlaceholder));
  }
  return value;
}

std::string login_value(LoginSetting setting) {
  const LoginRule& rule = login_rule(setting);
  std::string value = checked_value(rule.variable);
  if (value.size() > rule.limit || value.find_first_of(rule.forbidden) != value.npos) {
    throw Refusal(fmt::format("{} is too long or holds one of \"{}\"; no login takes it",
                              rule.variable, rule.forbidden));
  }
  return value;
}

/// Loads the policy from the very bytes that go into the bundle.
SecretText read_policy(McpPolicy& policy) {
  const std::string path = checked_value("KOVA_MCP_POLICY");
  SecretText bytes = read_file(path, kPolicyFileLimit);
  // Where approvals are marked does not matter: a policy that may write is refused.
  PolicyReading reading{.any_machine = true};
  if (!policy_read(bytes.view(), policy, reading)) {
    throw Refusal(fmt::format("{}: {}", path, policy.error));
  }
  if (policy.writes_enabled) {
    throw Refusal(path + ": the policy enables writes; a bundle is for reading only");
  }
  return bytes;
}

}  // namespace

Site read_site() {
  const auto policy = std::make_unique<McpPolicy>();
  Site site;
  site.policy_file = read_policy(*policy);
  site.policy = policy->name;
  site.client_id = checked_value("KOVA_MCP_CLIENT_ID");
  site.database = login_value(LoginSetting::kDatabase);
  site.user = login_value(LoginSetting::kUser);
  site.server = login_value(LoginSetting::kServer);
  site.port = login_value(LoginSetting::kPort);
  site.providers_are_stopped = policy_env_flag(kDisableProviders);
  return site;
}

}  // namespace kova::admin

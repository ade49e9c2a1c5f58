#include "admin/common/deployment.h"

#include <vector>

#include "admin/common/environment_file.h"
#include "admin/common/refusal.h"
#include "platform/environment.h"
#include "platform/environment_change.h"
#include "policy/policy_file.h"

namespace kova::admin {

namespace {

constexpr std::string_view kServerPrefix = "KOVA_MCP_";

void clear_server_variables() {
  std::vector<std::string> names;
  visit_environment_names(
      [](void* context, std::string_view name) {
        if (name.starts_with(kServerPrefix)) {
          static_cast<std::vector<std::string>*>(context)->emplace_back(name);
        }
      },
      &names);
  for (const std::string& name : names) clear_environment_variable(name.c_str());
}

}  // namespace

std::shared_ptr<std::string> add_env_option(CLI::App& parser) {
  auto path = std::make_shared<std::string>();
  parser.add_option("--env", *path, "The environment file of the deployment")->type_name("FILE");
  return path;
}

void use_deployment(const std::string& env_file) {
  if (env_file.empty()) return;
  const std::vector<EnvironmentEntry> entries = read_environment_file(env_file);
  clear_server_variables();
  for (const EnvironmentEntry& entry : entries) {
    if (!set_environment_variable(entry.name.c_str(), entry.value.c_str())) {
      throw Refusal(env_file + ": the variable " + entry.name + " cannot be set");
    }
  }
}

std::unique_ptr<McpPolicy> load_policy() {
  auto policy = std::make_unique<McpPolicy>();
  if (!policy_load(*policy)) throw Refusal(policy->error);
  return policy;
}

std::string deployment_value(const char* name) {
  return std::string(EnvironmentValue(name).view());
}

}  // namespace kova::admin

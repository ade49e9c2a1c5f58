#include "admin/common/deployment.h"

#include "admin/common/command_line.h"
#include "admin/common/environment_file.h"
#include "admin/common/refusal.h"
#include "platform/environment.h"
#include "platform/environment_change.h"
#include "policy/policy_file.h"

namespace kova::admin {

namespace {

constexpr std::string_view kServerPrefix = "KOVA_MCP_";

std::vector<std::string> server_variables() {
  std::vector<std::string> names;
  visit_environment_names(
      [](void* context, std::string_view name) {
        if (name.starts_with(kServerPrefix)) {
          static_cast<std::vector<std::string>*>(context)->emplace_back(name);
        }
      },
      &names);
  return names;
}

void set_variables(const std::string& env_file, const std::vector<EnvironmentEntry>& entries) {
  for (const std::string& name : server_variables()) clear_environment_variable(name.c_str());
  for (const EnvironmentEntry& entry : entries) {
    if (!set_environment_variable(entry.name.c_str(), entry.value.c_str())) {
      throw Refusal(env_file + ": the variable " + entry.name + " cannot be set");
    }
  }
}

constexpr const char* kEnvOption = "--env";

}  // namespace

std::shared_ptr<std::string> add_env_option(CommandParser& parser) {
  auto path = std::make_shared<std::string>();
  parser.add_option(kEnvOption, *path, "The environment file of the deployment")
      .type_name("FILE")
      .not_empty();
  return path;
}

std::shared_ptr<std::vector<std::string>> add_env_options(CommandParser& parser) {
  auto paths = std::make_shared<std::vector<std::string>>();
  parser.add_option(kEnvOption, *paths, "The environment file of a deployment; may be repeated")
      .type_name("FILE")
      .one_value_each()
      .not_empty();
  return paths;
}

void use_deployment(const std::string& env_file) {
  if (!env_file.empty()) set_variables(env_file, read_environment_file(env_file));
}

DeploymentInUse::DeploymentInUse(const std::string& env_file) {
  if (env_file.empty()) return;
  const std::vector<EnvironmentEntry> entries = read_environment_file(env_file);
  for (const std::string& name : server_variables()) remember(name);
  for (const EnvironmentEntry& entry : entries) remember(entry.name);
  set_variables(env_file, entries);
}

DeploymentInUse::~DeploymentInUse() {
  for (const Former& former : former_) {
    clear_environment_variable(former.name.c_str());
    if (former.value) {
      static_cast<void>(set_environment_variable(former.name.c_str(), former.value->c_str()));
    }
  }
}

void DeploymentInUse::remember(const std::string& name) {
  const EnvironmentValue value(name.c_str());
  Former former{.name = name, .value = std::nullopt};
  if (value.is_set()) former.value.emplace(value.view());
  former_.push_back(std::move(former));
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

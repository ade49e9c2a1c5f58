// The deployment that a command works on.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/common/command_parser.h"
#include "admin/common/secret_text.h"
#include "policy/policy.h"

namespace kova::admin {

/// Adds `--env FILE` to a command and returns where its value will stand, empty without it.
[[nodiscard]] std::shared_ptr<std::string> add_env_option(CommandParser& parser);

/// The same for a command that takes it several times.
[[nodiscard]] std::shared_ptr<std::vector<std::string>> add_env_options(CommandParser& parser);

/// Makes the deployment that of an environment file: the process's own KOVA_MCP_* variables are
/// cleared and those of the file set, so that the server's own code reads them. With an empty path
/// the process's environment is the deployment, and nothing happens. Throws Refusal.
void use_deployment(const std::string& env_file);

/// Makes the deployment that of an environment file until destruction, which restores the variables
/// that stood there before: several deployments are looked at one after the other.
class DeploymentInUse {
 public:
  /// As `use_deployment`.
  explicit DeploymentInUse(const std::string& env_file);
  ~DeploymentInUse();
  DeploymentInUse(const DeploymentInUse&) = delete;
  DeploymentInUse& operator=(const DeploymentInUse&) = delete;

 private:
  struct Former {
    std::string name;
    std::optional<SecretText> value;
  };

  void remember(const std::string& name);

  std::vector<Former> former_;
};

/// The policy of the deployment. Throws Refusal with the loader's message.
[[nodiscard]] std::unique_ptr<McpPolicy> load_policy();

/// The value of a variable of the deployment, empty when it is not set. Not for secrets.
[[nodiscard]] std::string deployment_value(const char* name);

}  // namespace kova::admin

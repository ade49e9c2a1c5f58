#include "admin/policy/policy_source.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>

#include "admin/common/refusal.h"
#include "admin/common/secret_text.h"
#include "platform/environment.h"
#include "platform/file.h"
#include "policy/policy_file.h"

namespace kova::admin {

namespace {

/// The first bytes of a file: of one that is too large, enough for the loader to see that.
SecretText read_policy_bytes(const std::string& path) {
  InputFile file;
  if (path.find('\0') != std::string::npos || !file.open(path.c_str())) {
    throw Refusal(path + ": the file cannot be opened");
  }
  SecretText bytes(std::size_t{std::min<std::uint64_t>(file.size(), kPolicyFileLimit + 1)});
  if (!bytes.view().empty() && !file.read(bytes.data(), bytes.view().size())) {
    throw Refusal(path + ": the file cannot be read");
  }
  return bytes;
}

bool names_a_launch() {
  return std::ranges::any_of(
      std::initializer_list<const char*>{"KOVA_MCP_CLIENT_ID", "KOVA_MCP_DATABASE",
                                         "KOVA_MCP_USER"},
      [](const char* name) { return !EnvironmentValue(name).view().empty(); });
}

}  // namespace

std::shared_ptr<bool> add_other_host_option(CommandParser& parser) {
  auto other_host = std::make_shared<bool>(false);
  parser.add_flag("--other-host", *other_host,
                  "The policy is for another machine: do not judge the launch identity and the "
                  "state directory");
  return other_host;
}

PolicyVerdict judge_policy(const std::string& path, Launch launch, bool other_host) {
  const SecretText bytes = read_policy_bytes(path);
  PolicyVerdict verdict{.policy = std::make_unique<McpPolicy>()};
  PolicyReading reading;
  reading.any_launch = launch == Launch::kAny || other_host || !names_a_launch();
  reading.any_machine = other_host;
  static_cast<void>(policy_read(bytes.view(), *verdict.policy, reading));
  verdict.line = reading.line;
  verdict.column = reading.column;
  return verdict;
}

std::string fault_text(const std::string& path, const PolicyVerdict& verdict) {
  if (verdict.line == 0) return fmt::format("{}: {}", path, verdict.policy->error);
  return fmt::format("{}: line {}, column {}: {}", path, verdict.line, verdict.column,
                     verdict.policy->error);
}

std::unique_ptr<McpPolicy> need_policy(const std::string& path, Launch launch, bool other_host) {
  PolicyVerdict verdict = judge_policy(path, launch, other_host);
  if (!verdict.policy->valid) throw Refusal(fault_text(path, verdict));
  return std::move(verdict.policy);
}

}  // namespace kova::admin

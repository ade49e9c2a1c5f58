// Policy files as the commands of `kova-admin policy` read them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "admin/common/command_parser.h"
#include "policy/policy.h"

namespace kova::admin {

/// For whom a file is judged.
enum class Launch {
  kEnvironment,  ///< the identities of the deployment, when it sets one
  kAny           ///< a file of another launch: identities are not compared
};

/// The loader's verdict on one file.
struct PolicyVerdict {
  std::unique_ptr<McpPolicy> policy;
  std::uint32_t line = 0;    ///< of the key that the message speaks of; 0 when there is none
  std::uint32_t column = 0;  ///< in bytes
};

/// Adds `--other-host` to a command and returns where its value will stand.
[[nodiscard]] std::shared_ptr<bool> add_other_host_option(CommandParser& parser);

/// Judges a file by the server's loader. With `other_host` the launch identity and the state
/// directory's path are left out. Throws Refusal when the file cannot be read.
[[nodiscard]] PolicyVerdict judge_policy(const std::string& path, Launch launch, bool other_host);

/// "FILE: line L, column C: MESSAGE", without a place where there is none.
[[nodiscard]] std::string fault_text(const std::string& path, const PolicyVerdict& verdict);

/// The policy of a file. Throws Refusal, with the fault's text, for one that is not valid.
[[nodiscard]] std::unique_ptr<McpPolicy> need_policy(const std::string& path, Launch launch,
                                                     bool other_host);

}  // namespace kova::admin

// Mistakes in a policy that look harmless.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "policy/policy.h"

namespace kova::admin {

struct LintFinding {
  std::string file;
  std::string rule;  ///< a stable name
  std::string key;   ///< of the policy; empty when it is about the file
  std::string why;
  std::string instead;
};

/// What the engine knows of one table.
struct TableColumns {
  std::string table;
  std::vector<std::string> columns;
};

/// A policy that is to be examined.
struct LintSubject {
  std::string file;
  const McpPolicy* policy;
  /// The columns of the engine's tables; nothing when it was not asked or did not tell all.
  std::optional<std::vector<TableColumns>> columns;
  bool other_host = false;  ///< the state directory is not on this machine
};

/// Examines one policy and its file.
[[nodiscard]] std::vector<LintFinding> lint_policy(const LintSubject& subject);

/// Compares policies with each other: each further file of the same policy name.
[[nodiscard]] std::vector<LintFinding> lint_names(const std::vector<LintSubject>& subjects);

}  // namespace kova::admin

// The tables of the engine and their columns.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "admin/policy/lint_rules.h"

namespace kova::admin {

/// What asking the engine has come to.
struct EngineColumns {
  std::optional<std::vector<TableColumns>> tables;  ///< nothing when it did not tell all
  std::string failure;                              ///< why not; empty when no engine is set
};

/// Logs in with the settings of the deployment and describes every table. Without complete settings
/// no engine is asked.
[[nodiscard]] EngineColumns ask_engine_columns();

}  // namespace kova::admin

// The command `audit report`.
#pragma once

#include <CLI/CLI.hpp>

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_audit_report(CLI::App& parser);

}  // namespace kova::admin

// The command `audit report`.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_audit_report(CommandParser& parser);

}  // namespace kova::admin

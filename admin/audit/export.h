// The command `audit export`.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_audit_export(CommandParser& parser);

}  // namespace kova::admin

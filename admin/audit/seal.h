// The command `audit seal`.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_audit_seal(CommandParser& parser);

}  // namespace kova::admin

// The command `audit tail`.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_audit_tail(CommandParser& parser);

}  // namespace kova::admin

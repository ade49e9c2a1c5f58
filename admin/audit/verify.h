// The command `audit verify`.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_audit_verify(CommandParser& parser);

}  // namespace kova::admin

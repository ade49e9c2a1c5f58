// kova-admin approve: an operator reads a write and signs it.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

/// Adds the command's options and returns what runs it. A refusal before the decision leaves
/// nothing behind.
[[nodiscard]] RunCommand add_approve(CommandParser& parser);

}  // namespace kova::admin

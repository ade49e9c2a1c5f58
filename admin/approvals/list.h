// kova-admin approvals list: what has become of each approval.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

/// Adds the command's options and returns what runs it: kExitFound when a token was used that the
/// journal does not know.
[[nodiscard]] RunCommand add_approvals_list(CommandParser& parser);

}  // namespace kova::admin

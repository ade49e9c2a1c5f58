// `kova-admin policy diff`: what a new policy widens and narrows.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_policy_diff(CommandParser& parser);

}  // namespace kova::admin

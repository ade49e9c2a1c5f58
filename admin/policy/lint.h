// `kova-admin policy lint`: mistakes that look harmless.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_policy_lint(CommandParser& parser);

}  // namespace kova::admin

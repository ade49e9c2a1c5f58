// `kova-admin policy test`: a policy held against a table of cases.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_policy_test(CommandParser& parser);

}  // namespace kova::admin

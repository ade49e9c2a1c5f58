// `kova-admin policy check`: the loader's verdict on a policy file.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_policy_check(CommandParser& parser);

}  // namespace kova::admin

// `kova-admin policy explain`: what a policy means, or what it makes of one call.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

[[nodiscard]] RunCommand add_policy_explain(CommandParser& parser);

}  // namespace kova::admin

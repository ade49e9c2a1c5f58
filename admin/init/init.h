// `kova-admin init`: writes a deployment that works.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

/// A Command's `add`.
[[nodiscard]] RunCommand add_init(CommandParser& parser);

}  // namespace kova::admin

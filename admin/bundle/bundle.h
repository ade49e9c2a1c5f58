// `kova-admin bundle`: a client bundle (.mcpb) for one site, which asks its user for the password
// alone.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

/// A Command's `add`.
[[nodiscard]] RunCommand add_bundle(CommandParser& parser);

}  // namespace kova::admin

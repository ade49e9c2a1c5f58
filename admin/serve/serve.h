// `kova-admin serve`: starts the server with the environment of a file. It is what clients and
// start scripts call, so that no secret stands in a client's configuration.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

/// A Command's `add`.
[[nodiscard]] RunCommand add_serve(CommandParser& parser);

}  // namespace kova::admin

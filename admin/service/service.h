// `kova-admin service`: the HTTP listener as a service of Windows. It installs, starts, stops and
// removes it, and is the service's process.
#pragma once

#include "admin/common/command_line.h"

namespace kova::admin {

// Each is a Command's `add`.
[[nodiscard]] RunCommand add_service_install(CommandParser& parser);
[[nodiscard]] RunCommand add_service_start(CommandParser& parser);
[[nodiscard]] RunCommand add_service_stop(CommandParser& parser);
[[nodiscard]] RunCommand add_service_remove(CommandParser& parser);
[[nodiscard]] RunCommand add_service_run(CommandParser& parser);

}  // namespace kova::admin

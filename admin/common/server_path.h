// The server that this program goes with.
#pragma once

#include <string>

namespace kova::admin {

/// The path of this executable. Throws Refusal when the system does not tell.
[[nodiscard]] std::string own_executable();

/// The server's executable in this executable's folder, whether or not it is there.
[[nodiscard]] std::string server_beside();

}  // namespace kova::admin

// Who decides, and where.
#pragma once

#include <string>

namespace kova::admin {

/// The name of the real user; under sudo "SUDO_USER (as NAME)". Throws Refusal when the system
/// does not tell.
[[nodiscard]] std::string deciding_person();

/// This machine's name. Throws Refusal when the system does not tell.
[[nodiscard]] std::string deciding_host();

}  // namespace kova::admin

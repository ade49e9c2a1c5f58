// The tables that the engine offers.
#pragma once

#include <string_view>

#include "admin/init/setup.h"

namespace kova::admin {

/// Logs in with the values of a setup, which it puts into this process's environment, and asks for
/// the tables. Throws Refusal, which names the step, when the engine does not let it in.
[[nodiscard]] Names engine_tables(const Setup& setup);

/// The first column of a statement's result, without what is no safe name.
[[nodiscard]] Names names_in(std::string_view result);

/// Puts the login's values into this process's environment. Throws Refusal, with the option, for
/// one outside its limits.
void use_login(const Setup& setup);

}  // namespace kova::admin

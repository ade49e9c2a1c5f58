// Changing the environment of this process, and the names in it.
#pragma once

#include <string_view>

namespace kova {

/// Sets a variable, replacing its value. False when the system refuses the name or the value or
/// has no memory.
[[nodiscard]] bool set_environment_variable(const char* name, const char* value);

/// Removes a variable; where the system lets the process reach the value, it is overwritten first.
void clear_environment_variable(const char* name);

/// Calls `visit` with the name of each variable, in upper case where the system compares names
/// without regard to case. The environment must not change meanwhile.
void visit_environment_names(void (*visit)(void* context, std::string_view name), void* context);

}  // namespace kova

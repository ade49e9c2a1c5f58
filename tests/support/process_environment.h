// The environment of this process, in UTF-8 on every platform.
#pragma once

#include <optional>
#include <string>

namespace kova::testing {

[[nodiscard]] std::optional<std::string> get_process_variable(const std::string& name);
/// No value unsets the variable.
void set_process_variable(const std::string& name, const std::optional<std::string>& value);

}  // namespace kova::testing

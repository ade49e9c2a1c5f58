#include "support/process_environment.h"

#include <cstdlib>

namespace kova::testing {

std::optional<std::string> get_process_variable(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

void set_process_variable(const std::string& name, const std::optional<std::string>& value) {
  const int failed = value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  if (failed != 0) std::abort();
}

}  // namespace kova::testing

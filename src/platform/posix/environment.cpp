#include "platform/environment.h"

#include <cstdlib>

namespace kova {

EnvironmentValue::EnvironmentValue(const char* name) : text_(std::getenv(name)) {}

EnvironmentValue::~EnvironmentValue() = default;

void unset_environment(const char* name) {
  ::unsetenv(name);
}

}  // namespace kova

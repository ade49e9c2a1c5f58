#include "platform/environment.h"

#include <cstdlib>

namespace kova {

EnvironmentValue::EnvironmentValue(const char* name) : text_(std::getenv(name)) {}

EnvironmentValue::~EnvironmentValue() = default;

}  // namespace kova

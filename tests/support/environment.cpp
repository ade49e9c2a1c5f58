#include "support/environment.h"

#include <utility>

#include "support/process_environment.h"

namespace kova::testing {

ScopedEnvironment::ScopedEnvironment(std::string name, std::string_view value)
    : ScopedEnvironment(std::move(name)) {
  set(value);
}

ScopedEnvironment::ScopedEnvironment(std::string name)
    : name_(std::move(name)), before_(get_process_variable(name_)) {
  unset();
}

ScopedEnvironment::~ScopedEnvironment() {
  set_process_variable(name_, before_);
}

void ScopedEnvironment::set(std::string_view value) {
  set_process_variable(name_, std::string(value));
}

void ScopedEnvironment::unset() {
  set_process_variable(name_, std::nullopt);
}

}  // namespace kova::testing

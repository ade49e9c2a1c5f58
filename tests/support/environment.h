// Environment variables of the test program.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kova::testing {

/// Sets or unsets one environment variable (texts in UTF-8) and restores it at destruction.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, std::string_view value);
  /// Unsets the variable.
  explicit ScopedEnvironment(std::string name);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  /// Changes the value once more; the first one is what is restored.
  void set(std::string_view value);
  void unset();

 private:
  std::string name_;
  std::optional<std::string> before_;
};

}  // namespace kova::testing

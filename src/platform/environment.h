// Environment variables as UTF-8.
#pragma once

#include <string_view>

namespace kova {

/// The value of one environment variable, read at construction. A copy made for it is wiped at
/// destruction, as it may hold a secret. Not safe against a concurrent change of the environment.
class EnvironmentValue {
 public:
  explicit EnvironmentValue(const char* name);
  ~EnvironmentValue();
  EnvironmentValue(const EnvironmentValue&) = delete;
  EnvironmentValue& operator=(const EnvironmentValue&) = delete;

  [[nodiscard]] bool is_set() const { return text_ != nullptr; }
  /// Empty when the variable is not set; NUL-terminated.
  [[nodiscard]] const char* c_str() const { return text_ != nullptr ? text_ : ""; }
  [[nodiscard]] std::string_view view() const { return c_str(); }

 private:
  const char* text_ = nullptr;
  char* owned_ = nullptr;
};

}  // namespace kova

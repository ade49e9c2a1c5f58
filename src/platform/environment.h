// Environment variables as UTF-8.
#pragma once

#include <cstddef>
#include <string_view>

namespace kova {

/// The value of one environment variable, read at construction. A copy of it is wiped at
/// destruction, as it may hold a secret. A variable that is set and cannot be copied ends the
/// process: nothing may be decided as if it were not set. Not safe against a concurrent change of
/// the environment.
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
  static constexpr std::size_t kInlineCapacity = 512;

  const char* text_ = nullptr;
  // Used where the system's text has another encoding and must be copied.
  char* owned_ = nullptr;
  char inline_[kInlineCapacity];
};

/// Takes a variable out of this process's environment, and so out of that of its later children.
/// Not safe against a concurrent reader.
void unset_environment(const char* name);

}  // namespace kova

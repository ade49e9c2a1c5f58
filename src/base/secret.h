// Overwriting and comparing secrets.
#pragma once

#include <cstddef>
#include <string_view>

namespace kova {

/// Overwrites `size` bytes with zeros; the compiler cannot drop it.
void wipe(void* data, std::size_t size);

/// Wipes an array on every way out of the scope.
class WipeGuard {
 public:
  template <typename Byte, std::size_t N>
  explicit WipeGuard(Byte (&array)[N]) : data_(array), size_(N) {
    static_assert(sizeof(Byte) == 1);
  }
  ~WipeGuard() { wipe(data_, size_); }
  WipeGuard(const WipeGuard&) = delete;
  WipeGuard& operator=(const WipeGuard&) = delete;

 private:
  void* data_;
  std::size_t size_;
};

/// Equality of texts, in a time that does not depend on where they differ.
[[nodiscard]] bool equal_constant_time(std::string_view a, std::string_view b);

/// Equality of ASCII texts ignoring case, in a time that does not depend on where they differ.
[[nodiscard]] bool equal_ignoring_case_constant_time(std::string_view a, std::string_view b);

}  // namespace kova

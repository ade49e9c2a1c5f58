// Overwriting secrets.
#pragma once

#include <cstddef>

namespace kova {

/// Overwrites `size` bytes with zeros; the compiler cannot drop it.
void wipe(void* data, std::size_t size);

/// Wipes an array on every way out of the scope.
class WipeGuard {
 public:
  template <std::size_t N>
  explicit WipeGuard(char (&array)[N]) : data_(array), size_(N) {}
  ~WipeGuard() { wipe(data_, size_); }
  WipeGuard(const WipeGuard&) = delete;
  WipeGuard& operator=(const WipeGuard&) = delete;

 private:
  void* data_;
  std::size_t size_;
};

}  // namespace kova

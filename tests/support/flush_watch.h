// What holds at the moment when a file is flushed. The unit test binary is linked so that its calls
// of fdatasync, or of FlushFileBuffers, pass through here.
#pragma once

#include <functional>

namespace kova::testing {

/// While it lives, every flush asks the question first. One at a time.
class FlushWatch {
 public:
  explicit FlushWatch(std::function<bool()> question);
  ~FlushWatch();
  FlushWatch(const FlushWatch&) = delete;
  FlushWatch& operator=(const FlushWatch&) = delete;

  /// What each flush calls first; without a FlushWatch nothing is asked.
  static void ask();
  /// How often a file was flushed, and whether the last check returned true.
  [[nodiscard]] static int calls();
  [[nodiscard]] static bool result();
};

}  // namespace kova::testing

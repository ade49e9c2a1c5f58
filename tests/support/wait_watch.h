// How long the code under test waits for its conditions. The unit tests' own Condition::wait_within
// stands in for the product's and calls it (see renamed/renamed.h).
#pragma once

#include <cstdint>

namespace kova::testing {

/// Notes the waits with a time limit while it lives. One at a time.
class WaitWatch {
 public:
  WaitWatch();

  /// The longest time that one was allowed so far, in milliseconds.
  [[nodiscard]] static std::uint32_t longest_ms();
};

}  // namespace kova::testing

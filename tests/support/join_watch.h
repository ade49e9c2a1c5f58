// How long the code under test waits for the end of its threads. The unit tests' own
// Thread::join_within stands in for the product's and calls it (see renamed/renamed.h).
#pragma once

#include <cstdint>

namespace kova::testing {

/// Notes the waits with a time limit while it lives. One at a time.
class JoinWatch {
 public:
  JoinWatch();

  /// The longest time that one was allowed so far, in milliseconds.
  [[nodiscard]] static std::uint32_t longest_ms();
};

}  // namespace kova::testing

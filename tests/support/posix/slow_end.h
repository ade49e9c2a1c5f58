// Children that do not end, on a clock of their own. The unit test binary is linked so that its
// calls of waitid and clock_gettime pass through here.
#pragma once

#include <cstdint>

namespace kova::testing {

/// While it lives, no child is seen to end by waitid, and each look moves the monotonic clock on by
/// `step_ms`, so that waits with a time limit take no time. One at a time.
class SlowEnd {
 public:
  explicit SlowEnd(std::uint64_t step_ms);
  ~SlowEnd();
  SlowEnd(const SlowEnd&) = delete;
  SlowEnd& operator=(const SlowEnd&) = delete;

  /// By how many milliseconds the clock was moved on.
  [[nodiscard]] static std::uint64_t waited_ms();
};

}  // namespace kova::testing

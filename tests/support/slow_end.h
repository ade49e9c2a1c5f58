// Children that do not end, on a clock of their own. The unit test binary is linked so that its
// calls of waitid and clock_gettime, or of WaitForSingleObject, pass through here.
#pragma once

#include <cstdint>

namespace kova::testing {

/// While it lives, no child is seen to end, and waits with a time limit take no time: the time that
/// they would take is counted. Its end collects the children that this process has left behind. One
/// at a time.
class SlowEnd {
 public:
  SlowEnd();
  ~SlowEnd();
  SlowEnd(const SlowEnd&) = delete;
  SlowEnd& operator=(const SlowEnd&) = delete;

  /// How many milliseconds were waited; on Linux in steps of a second.
  [[nodiscard]] static std::uint64_t waited_ms();
};

}  // namespace kova::testing

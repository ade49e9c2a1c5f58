// How processes are started, and processes that the system does not start. The unit test binary is
// linked so that its calls of CreateProcessW and IsProcessInJob pass through here.
#pragma once

#include <cstdint>

namespace kova::testing {

/// While it lives, no process starts: the system's error is `error`, and this process is, or is
/// not, in a job. One at a time.
class StartRefusal {
 public:
  StartRefusal(std::uint32_t error, bool in_job);
  ~StartRefusal();
  StartRefusal(const StartRefusal&) = delete;
  StartRefusal& operator=(const StartRefusal&) = delete;
};

/// The creation flags of the last process that was to start.
[[nodiscard]] std::uint32_t last_start_flags();

}  // namespace kova::testing

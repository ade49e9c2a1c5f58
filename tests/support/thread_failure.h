// Threads that cannot be started. The unit test binary is linked so that Thread::start and
// start_detached pass through here.
#pragma once

namespace kova::testing {

/// While it lives, no thread starts.
class ThreadFailure {
 public:
  ThreadFailure();
  ~ThreadFailure();
  ThreadFailure(const ThreadFailure&) = delete;
  ThreadFailure& operator=(const ThreadFailure&) = delete;
};

}  // namespace kova::testing

// Threads that cannot be started. The unit tests' own Thread::start and start_detached stand in for
// the product's and call them (see renamed/renamed.h).
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

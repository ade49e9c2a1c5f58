// Running out of memory on purpose. The unit test binary is linked so that its calls of malloc,
// calloc and realloc pass through here; those of the thread that runs the tests are counted.
#pragma once

#include <cstdint>

namespace kova::testing {

/// While it lives, the n-th allocation of one thread from its construction on (1 is the next one)
/// returns null; all others succeed, and so do those of other threads. One at a time.
class AllocationFailure {
 public:
  /// Of the thread that runs the tests.
  explicit AllocationFailure(int nth);
  /// Of the thread that current_thread() calls so.
  AllocationFailure(int nth, std::uintptr_t thread);
  ~AllocationFailure();
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;

  /// Whether the allocation was asked for, and refused.
  [[nodiscard]] static bool happened();
};

/// The number of allocations asked for so far; the difference of two calls is the number between
/// them.
[[nodiscard]] unsigned long allocation_count();

}  // namespace kova::testing

// Mutexes that cannot be had. The unit test binary is linked so that its calls of OpenMutexW and
// CreateMutexExW pass through here.
#pragma once

#include <string_view>

namespace kova::testing {

/// While it lives, the system refuses every mutex whose name begins so. One at a time; the text
/// must outlive it.
class MutexFailure {
 public:
  explicit MutexFailure(std::wstring_view beginning);
  ~MutexFailure();
  MutexFailure(const MutexFailure&) = delete;
  MutexFailure& operator=(const MutexFailure&) = delete;

  /// How many were refused so far.
  [[nodiscard]] static int refused();
};

}  // namespace kova::testing

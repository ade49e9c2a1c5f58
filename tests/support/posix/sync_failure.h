// Files that cannot be stored for good. The unit test binary is linked so that its calls of fsync
// pass through here.
#pragma once

#include <cerrno>

namespace kova::testing {

/// What a failing fsync was to store.
enum class Synced { kNothing, kFile, kDirectory };

/// While it lives, the n-th fsync from its construction on (1 is the next one) fails with `error`;
/// all others are the system's. One at a time.
class SyncFailure {
 public:
  explicit SyncFailure(int nth, int error = EIO);
  ~SyncFailure();
  SyncFailure(const SyncFailure&) = delete;
  SyncFailure& operator=(const SyncFailure&) = delete;

  /// What the failing one was asked to store; kNothing while it was not asked for.
  [[nodiscard]] static Synced failed();
};

}  // namespace kova::testing

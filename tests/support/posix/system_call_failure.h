// System calls that fail. The unit test binary is linked so that its calls of these functions pass
// through here.
#pragma once

namespace kova::testing {

enum class SystemCall {
  kCloseRange,
  kDup2,
  kFlock,
  kPidfdOpen,
  kPipe2,
  kPoll,
  kPrctl,
  kSetPipeSize,  ///< fcntl with F_SETPIPE_SZ
};

/// While it lives, calls of one function from the `first`-th on (1 is the next one) fail with
/// `error`, `count` of them; all others are the system's. One at a time. Also counts for a child
/// between vfork and exec.
class SystemCallFailure {
 public:
  static constexpr int kAll = 1 << 30;

  explicit SystemCallFailure(SystemCall call, int error, int first = 1, int count = kAll);
  ~SystemCallFailure();
  SystemCallFailure(const SystemCallFailure&) = delete;
  SystemCallFailure& operator=(const SystemCallFailure&) = delete;

  /// How many calls have failed so far.
  [[nodiscard]] static int failed();
};

}  // namespace kova::testing

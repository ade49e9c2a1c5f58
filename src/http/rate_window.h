// The count of requests in the running minute.
#pragma once

#include <cstdint>

#include "platform/thread.h"

namespace kova {

/// A fixed window over the requests of the whole listener; used by all its threads.
class RateWindow {
 public:
  /// Counts a request at `now_ms` and returns whether it is among the first `limit` of the window
  /// of 60,000 ms that began with the first request after the last one.
  [[nodiscard]] bool admit(std::uint64_t now_ms, std::uint32_t limit);

 private:
  SpinLock lock_;
  bool started_ = false;
  std::uint64_t start_ms_ = 0;
  std::uint32_t count_ = 0;
};

}  // namespace kova

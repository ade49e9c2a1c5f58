#include "http/rate_window.h"

#include <limits>

namespace kova {

namespace {

constexpr std::uint64_t kWindowMs = 60000;

}  // namespace

bool RateWindow::admit(std::uint64_t now_ms, std::uint32_t limit) {
  const SpinGuard guard(lock_);
  // This thread may have read the clock before the thread that has begun the window.
  const std::uint64_t elapsed = now_ms > start_ms_ ? now_ms - start_ms_ : 0;
  if (!started_ || elapsed >= kWindowMs) {
    started_ = true;
    start_ms_ = now_ms;
    count_ = 0;
  }
  if (count_ < std::numeric_limits<std::uint32_t>::max()) ++count_;
  return count_ <= limit;
}

}  // namespace kova

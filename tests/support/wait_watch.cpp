#include "support/wait_watch.h"

#include <atomic>

#include "support/renamed/renamed.h"

namespace kova {
namespace {

std::atomic<std::uint32_t> longest{0};

}  // namespace

void Condition::wait_within(Mutex& mutex, std::uint32_t milliseconds) {
  for (std::uint32_t before = longest;
       milliseconds > before && !longest.compare_exchange_weak(before, milliseconds);) {
  }
  testing::real_wait_within(*this, mutex, milliseconds);
}

namespace testing {

WaitWatch::WaitWatch() {
  longest = 0;
}

std::uint32_t WaitWatch::longest_ms() {
  return longest;
}

}  // namespace testing
}  // namespace kova

#include "support/join_watch.h"

#include <atomic>

#include "support/renamed/renamed.h"

namespace kova {
namespace {

std::atomic<std::uint32_t> longest{0};

}  // namespace

bool Thread::join_within(std::uint32_t milliseconds) {
  for (std::uint32_t before = longest;
       milliseconds > before && !longest.compare_exchange_weak(before, milliseconds);) {
  }
  return testing::real_thread_join_within(*this, milliseconds);
}

namespace testing {

JoinWatch::JoinWatch() {
  longest = 0;
}

std::uint32_t JoinWatch::longest_ms() {
  return longest;
}

}  // namespace testing
}  // namespace kova

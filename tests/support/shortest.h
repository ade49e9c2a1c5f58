// Upper bounds of times, on a machine that does other things, too.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

#include "platform/clock.h"

namespace kova::testing {

/// Returns the shortest time of up to five calls, in milliseconds; the first one below `enough_ms`
/// is the last. Other programs prolong some calls, hardly all of them.
template <typename Call>
[[nodiscard]] std::uint64_t shortest_ms(std::uint64_t enough_ms, Call call) {
  constexpr int kCalls = 5;
  std::uint64_t shortest = std::numeric_limits<std::uint64_t>::max();
  for (int i = 0; i < kCalls && shortest >= enough_ms; ++i) {
    const std::uint64_t start = tick_ms();
    call();
    shortest = std::min(shortest, tick_ms() - start);
  }
  return shortest;
}

}  // namespace kova::testing

// Wall clock and tick count.
#pragma once

#include <cstdint>

namespace kova {

struct UtcTime {
  unsigned year, month, day, hour, minute, second, millisecond;
};

/// The wall clock as calendar time in UTC.
[[nodiscard]] UtcTime utc_now();

/// The wall clock as seconds since 1970-01-01 UTC.
[[nodiscard]] std::uint64_t unix_seconds();

/// Milliseconds of a clock that never goes back; its start is arbitrary.
[[nodiscard]] std::uint64_t tick_ms();

}  // namespace kova

#include "platform/clock.h"

#include <chrono>
#include <ctime>

namespace kova {

// Not by gmtime_r(): the C library would first read the file of the local time zone.
UtcTime utc_now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::chrono::sys_seconds time{std::chrono::seconds(now.tv_sec)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  return {.year = static_cast<unsigned>(static_cast<int>(date.year())),
          .month = static_cast<unsigned>(date.month()),
          .day = static_cast<unsigned>(date.day()),
          .hour = static_cast<unsigned>(clock.hours().count()),
          .minute = static_cast<unsigned>(clock.minutes().count()),
          .second = static_cast<unsigned>(clock.seconds().count()),
          .millisecond = static_cast<unsigned>(now.tv_nsec / 1000000)};
}

std::uint64_t unix_seconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec);
}

std::uint64_t tick_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace kova

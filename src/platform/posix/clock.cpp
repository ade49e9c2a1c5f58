#include "platform/clock.h"

#include <ctime>

namespace kova {

UtcTime utc_now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  return {.year = static_cast<unsigned>(parts.tm_year + 1900),
          .month = static_cast<unsigned>(parts.tm_mon + 1),
          .day = static_cast<unsigned>(parts.tm_mday),
          .hour = static_cast<unsigned>(parts.tm_hour),
          .minute = static_cast<unsigned>(parts.tm_min),
          .second = static_cast<unsigned>(parts.tm_sec),
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

#include "platform/clock.h"

#include <windows.h>

namespace kova {

UtcTime utc_now() {
  SYSTEMTIME now{};
  ::GetSystemTime(&now);
  return {.year = now.wYear,
          .month = now.wMonth,
          .day = now.wDay,
          .hour = now.wHour,
          .minute = now.wMinute,
          .second = now.wSecond,
          .millisecond = now.wMilliseconds};
}

std::uint64_t unix_seconds() {
  // File times count tenths of a microsecond since 1601-01-01.
  constexpr std::uint64_t kTicksPerSecond = 10000000;
  constexpr std::uint64_t kSecondsTo1970 = 11644473600;
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  const std::uint64_t ticks =
      static_cast<std::uint64_t>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
  return ticks / kTicksPerSecond - kSecondsTo1970;
}

std::uint64_t tick_ms() {
  return ::GetTickCount64();
}

}  // namespace kova

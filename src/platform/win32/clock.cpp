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

std::uint64_t tick_ms() {
  return ::GetTickCount64();
}

}  // namespace kova

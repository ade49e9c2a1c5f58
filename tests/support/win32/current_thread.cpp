#include "support/current_thread.h"

#include <windows.h>

namespace kova::testing {

std::uintptr_t current_thread() {
  return ::GetCurrentThreadId();
}

std::uint64_t thread_processor_us() {
  FILETIME created{};
  FILETIME ended{};
  FILETIME kernel{};
  FILETIME user{};
  GetThreadTimes(GetCurrentThread(), &created, &ended, &kernel, &user);
  const auto tenths = [](const FILETIME& time) {
    return static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
  };
  return (tenths(kernel) + tenths(user)) / 10;
}

}  // namespace kova::testing

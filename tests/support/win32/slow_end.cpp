#include "support/slow_end.h"

#include <windows.h>

#include <atomic>

// The names that the linker's --wrap gives to the pointer by which a program calls the system's
// library, and to its stand-in.
extern "C" {
extern const decltype(&WaitForSingleObject) __real___imp_WaitForSingleObject;
extern const decltype(&WaitForSingleObject) __wrap___imp_WaitForSingleObject;
}

namespace kova::testing {
namespace {

std::atomic<bool> slow{false};
std::atomic<std::uint64_t> waited{0};

DWORD WINAPI wait_for_single_object(HANDLE object, DWORD milliseconds) {
  if (!slow || milliseconds == INFINITE) {
    return __real___imp_WaitForSingleObject(object, milliseconds);
  }
  waited += milliseconds;
  return WAIT_TIMEOUT;
}

}  // namespace

SlowEnd::SlowEnd() {
  waited = 0;
  slow = true;
}

// The system forgets a child that has ended with its last handle.
SlowEnd::~SlowEnd() {
  slow = false;
}

std::uint64_t SlowEnd::waited_ms() {
  return waited;
}

}  // namespace kova::testing

const decltype(&WaitForSingleObject) __wrap___imp_WaitForSingleObject =
    kova::testing::wait_for_single_object;

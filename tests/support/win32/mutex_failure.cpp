#include "support/win32/mutex_failure.h"

#include <windows.h>

#include <atomic>

// The names that the linker's --wrap gives to the pointers by which a program calls the system's
// libraries, and to their stand-ins.
extern "C" {
extern const decltype(&OpenMutexW) __real___imp_OpenMutexW;
extern const decltype(&OpenMutexW) __wrap___imp_OpenMutexW;
extern const decltype(&CreateMutexExW) __real___imp_CreateMutexExW;
extern const decltype(&CreateMutexExW) __wrap___imp_CreateMutexExW;
}

namespace kova::testing {
namespace {

std::atomic<bool> failing{false};
std::atomic<int> failures{0};
std::wstring_view failing_beginning;

bool fails(LPCWSTR name) {
  if (!failing || name == nullptr || !std::wstring_view(name).starts_with(failing_beginning)) {
    return false;
  }
  ++failures;
  SetLastError(ERROR_ACCESS_DENIED);
  return true;
}

HANDLE WINAPI open_mutex(DWORD access, BOOL inherits, LPCWSTR name) {
  return fails(name) ? nullptr : __real___imp_OpenMutexW(access, inherits, name);
}

HANDLE WINAPI create_mutex(LPSECURITY_ATTRIBUTES security, LPCWSTR name, DWORD flags,
                           DWORD access) {
  return fails(name) ? nullptr : __real___imp_CreateMutexExW(security, name, flags, access);
}

}  // namespace

MutexFailure::MutexFailure(std::wstring_view beginning) {
  failing_beginning = beginning;
  failures = 0;
  failing = true;
}

MutexFailure::~MutexFailure() {
  failing = false;
}

int MutexFailure::refused() {
  return failures;
}

}  // namespace kova::testing

const decltype(&OpenMutexW) __wrap___imp_OpenMutexW = kova::testing::open_mutex;
const decltype(&CreateMutexExW) __wrap___imp_CreateMutexExW = kova::testing::create_mutex;

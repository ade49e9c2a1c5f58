#include "platform/environment.h"

#include <windows.h>

#include <cstdlib>

#include "base/secret.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr UINT kUnreadable = 2;

// A variable that is set and cannot be read must not count as missing: no policy would apply, and
// no kill switch.
[[noreturn]] void end_unreadable() {
  ::ExitProcess(kUnreadable);
}

template <typename Unit>
Unit* allocate(std::size_t units) {
  auto* const memory = static_cast<Unit*>(std::malloc(units * sizeof(Unit)));
  if (memory == nullptr) end_unreadable();
  return memory;
}

char* utf8_copy(const wchar_t* value) {
  const int size = ::WideCharToMultiByte(CP_UTF8, 0, value, -1, nullptr, 0, nullptr, nullptr);
  char* const copy = allocate<char>(static_cast<std::size_t>(size));
  ::WideCharToMultiByte(CP_UTF8, 0, value, -1, copy, size, nullptr, nullptr);
  return copy;
}

char* long_value(const wchar_t* name, DWORD units) {
  auto* const value = allocate<wchar_t>(units);
  if (::GetEnvironmentVariableW(name, value, units) >= units) end_unreadable();
  char* const copy = utf8_copy(value);
  wipe(value, units * sizeof(wchar_t));
  std::free(value);
  return copy;
}

}  // namespace

EnvironmentValue::EnvironmentValue(const char* name) {
  wchar_t wide_name[kWideCapacity];
  wchar_t value[kWideCapacity];
  if (!to_wide(name, wide_name)) return;
  // Both an empty value and a missing variable return 0; only the latter is an error.
  ::SetLastError(ERROR_SUCCESS);
  value[0] = L'\0';
  const DWORD units = ::GetEnvironmentVariableW(wide_name, value, kWideCapacity);
  if (units == 0 && ::GetLastError() == ERROR_ENVVAR_NOT_FOUND) return;
  if (units >= kWideCapacity) {
    owned_ = long_value(wide_name, units);
  } else if (!from_wide(value, inline_)) {
    owned_ = utf8_copy(value);
  }
  text_ = owned_ != nullptr ? owned_ : inline_;
  wipe(value, units < kWideCapacity ? units * sizeof(wchar_t) : 0);
}

EnvironmentValue::~EnvironmentValue() {
  wipe(inline_, sizeof inline_);
  if (owned_ == nullptr) return;
  wipe(owned_, view().size());
  std::free(owned_);
}

void unset_environment(const char* name) {
  wchar_t wide_name[kWideCapacity];
  if (to_wide(name, wide_name)) ::SetEnvironmentVariableW(wide_name, nullptr);
}

}  // namespace kova

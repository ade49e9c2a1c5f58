#include "platform/environment.h"

#include <windows.h>

#include <cstdlib>

#include "base/secret.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

char* utf8_copy(const wchar_t* value) {
  const int size = ::WideCharToMultiByte(CP_UTF8, 0, value, -1, nullptr, 0, nullptr, nullptr);
  char* copy = static_cast<char*>(std::malloc(static_cast<std::size_t>(size)));
  if (copy != nullptr) {
    ::WideCharToMultiByte(CP_UTF8, 0, value, -1, copy, size, nullptr, nullptr);
  }
  return copy;
}

}  // namespace

EnvironmentValue::EnvironmentValue(const char* name) {
  wchar_t wide_name[kWideCapacity];
  if (!to_wide(name, wide_name)) return;
  // Asked for no text, the system answers the room that it needs, its terminator included: 1 for
  // an empty value and 0 for a missing variable.
  const DWORD units = ::GetEnvironmentVariableW(wide_name, nullptr, 0);
  if (units == 0) return;
  const std::size_t size = units * sizeof(wchar_t);
  auto* value = static_cast<wchar_t*>(std::malloc(size));
  if (value == nullptr) return;
  value[0] = L'\0';
  ::GetEnvironmentVariableW(wide_name, value, units);
  owned_ = utf8_copy(value);
  text_ = owned_;
  wipe(value, size);
  std::free(value);
}

EnvironmentValue::~EnvironmentValue() {
  if (owned_ == nullptr) return;
  wipe(owned_, view().size());
  std::free(owned_);
}

}  // namespace kova

#include "platform/environment_change.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>

#include "base/ascii.h"
#include "base/secret.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kNameCapacity = 1024;

/// A UTF-16 copy of any length, wiped and freed at destruction; null when it cannot be made.
struct WideCopy {
  explicit WideCopy(const char* text)
      : units(::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, nullptr, 0)) {
    if (units <= 0) return;
    data = static_cast<wchar_t*>(std::malloc(size()));
    if (data != nullptr) ::MultiByteToWideChar(CP_UTF8, 0, text, -1, data, units);
  }
  ~WideCopy() {
    if (data != nullptr) wipe(data, size());
    std::free(data);
  }
  WideCopy(const WideCopy&) = delete;
  WideCopy& operator=(const WideCopy&) = delete;

  [[nodiscard]] std::size_t size() const {
    return static_cast<std::size_t>(units) * sizeof(wchar_t);
  }

  int units;
  wchar_t* data = nullptr;
};

}  // namespace

bool set_environment_variable(const char* name, const char* value) {
  const WideCopy wide_name(name);
  const WideCopy wide_value(value);
  return wide_name.data != nullptr && wide_value.data != nullptr &&
         ::SetEnvironmentVariableW(wide_name.data, wide_value.data) != 0;
}

void clear_environment_variable(const char* name) {
  const WideCopy wide_name(name);
  if (wide_name.data != nullptr) ::SetEnvironmentVariableW(wide_name.data, nullptr);
}

void visit_environment_names(void (*visit)(void* context, std::string_view name), void* context) {
  wchar_t* const block = ::GetEnvironmentStringsW();
  if (block == nullptr) return;
  for (const wchar_t* entry = block; *entry != L'\0'; entry += std::wcslen(entry) + 1) {
    // The system's own entries, one for each drive, begin with "=".
    const wchar_t* const end = std::wcschr(entry + 1, L'=');
    char name[kNameCapacity];
    if (*entry == L'=' || end == nullptr) continue;
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, entry, static_cast<int>(end - entry), name,
                                           sizeof name, nullptr, nullptr);
    if (size <= 0) continue;
    // The system compares names without regard to case.
    std::transform(name, name + size, name, to_upper);
    visit(context, {name, static_cast<std::size_t>(size)});
  }
  ::FreeEnvironmentStringsW(block);
}

}  // namespace kova

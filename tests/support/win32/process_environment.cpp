#include "support/process_environment.h"

#include <windows.h>

#include <cstdlib>

namespace kova::testing {
namespace {

std::wstring widen(const std::string& text) {
  if (text.empty()) return {};
  const int size = static_cast<int>(text.size());
  const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), length);
  return wide;
}

std::string narrow(const std::wstring& wide) {
  if (wide.empty()) return {};
  const int size = static_cast<int>(wide.size());
  const int length =
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
  std::string text(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, text.data(), length, nullptr, nullptr);
  return text;
}

}  // namespace

std::optional<std::string> get_process_variable(const std::string& name) {
  const std::wstring wide_name = widen(name);
  SetLastError(ERROR_SUCCESS);
  const DWORD capacity = GetEnvironmentVariableW(wide_name.c_str(), nullptr, 0);
  if (capacity == 0) {
    if (GetLastError() == ERROR_ENVVAR_NOT_FOUND) return std::nullopt;
    return std::string();
  }
  std::wstring value(capacity, L'\0');
  value.resize(GetEnvironmentVariableW(wide_name.c_str(), value.data(), capacity));
  return narrow(value);
}

void set_process_variable(const std::string& name, const std::optional<std::string>& value) {
  const std::wstring wide_name = widen(name);
  const std::wstring wide_value = value ? widen(*value) : std::wstring();
  const wchar_t* argument = value ? wide_value.c_str() : nullptr;
  if (!SetEnvironmentVariableW(wide_name.c_str(), argument) && value) std::abort();
}

}  // namespace kova::testing

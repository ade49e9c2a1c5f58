#include "platform/library.h"

#include <windows.h>

#include <algorithm>
#include <string_view>

#include "base/ascii.h"
#include "base/text.h"
#include "platform/environment.h"
#include "platform/own_path.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kLibraryPathCapacity = kWideCapacity;

bool is_absolute(std::string_view folder) {
  const bool drive = folder.size() >= 3 && is_alpha(folder[0]) && folder[1] == ':' &&
                     (folder[2] == '\\' || folder[2] == '/');
  return drive || folder.starts_with("\\\\");
}

// What the library itself needs is looked for beside it and in the system's folder, and no further.
HMODULE load_from(std::string_view folder, const char* file_name) {
  char path[kLibraryPathCapacity];
  wchar_t wide[kWideCapacity];
  TextOut out(path);
  if (!out.append(folder) || !out.append('\\') || !out.append(file_name)) return nullptr;
  std::replace(path, path + out.length(), '/', '\\');
  if (!to_wide(path, wide)) return nullptr;
  return ::LoadLibraryExW(wide, nullptr,
                          LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
}

HMODULE load_from_own_folder(const char* file_name) {
  char own[kLibraryPathCapacity];
  if (!own_path(own)) return nullptr;
  const std::string_view path(own);
  return load_from(slice(path, 0, path.rfind('\\')), file_name);
}

HMODULE load_from_system_folder(const char* file_name) {
  wchar_t wide[kWideCapacity];
  char folder[kLibraryPathCapacity];
  const UINT units = ::GetSystemDirectoryW(wide, kWideCapacity);
  if (units == 0 || units >= kWideCapacity || !from_wide(wide, folder)) return nullptr;
  return load_from(folder, file_name);
}

HMODULE load_from_search_path(const char* file_name) {
  const EnvironmentValue search_path("PATH");
  std::string_view rest = search_path.view();
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(';'), rest.size());
    const std::string_view folder = slice(rest, 0, end);
    if (is_absolute(folder)) {
      if (const HMODULE module = load_from(folder, file_name)) return module;
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return nullptr;
}

}  // namespace

bool Library::open(const char* file_name) {
  handle_ = load_from_own_folder(file_name);
  return handle_ != nullptr || open_in_search_path(file_name);
}

bool Library::open_in_search_path(const char* file_name) {
  HMODULE module = load_from_system_folder(file_name);
  if (module == nullptr) module = load_from_search_path(file_name);
  handle_ = module;
  return module != nullptr;
}

bool Library::open_in(std::string_view folder, const char* file_name) {
  handle_ = load_from(folder, file_name);
  return handle_ != nullptr;
}

bool Library::path(TextOut out) const {
  wchar_t wide[kWideCapacity];
  const DWORD units = ::GetModuleFileNameW(static_cast<HMODULE>(handle_), wide, kWideCapacity);
  return units > 0 && units < kWideCapacity && from_wide(wide, out);
}

void* Library::symbol(const char* name) const {
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(handle_), name));
}

}  // namespace kova

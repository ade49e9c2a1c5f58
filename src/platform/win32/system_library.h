// Libraries of Windows that are loaded when they are first needed, so that a call that does
// without one does not pay for it.
#pragma once

#include <windows.h>

namespace kova {

/// A library from the system's folder and no other. It is never unloaded.
class SystemLibrary {
 public:
  explicit SystemLibrary(const wchar_t* file_name)
      : module_(::LoadLibraryExW(file_name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {}

  /// Sets `function` to the exported function of this name. False without the library or the
  /// function.
  template <typename Function>
  [[nodiscard]] bool find(const char* name, Function*& function) const {
    if (module_ == nullptr) return false;
    function =
        reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module_, name)));
    return function != nullptr;
  }

 private:
  HMODULE module_;
};

}  // namespace kova

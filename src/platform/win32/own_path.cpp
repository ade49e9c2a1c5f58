#include "platform/own_path.h"

#include <windows.h>

#include "platform/win32/wide.h"

namespace kova {

bool own_path(TextOut out) {
  wchar_t wide[kWideCapacity];
  const DWORD units = ::GetModuleFileNameW(nullptr, wide, kWideCapacity);
  return units > 0 && units < kWideCapacity && from_wide(wide, out);
}

}  // namespace kova

#include "platform/user.h"

#include <windows.h>

#include "platform/win32/wide.h"

namespace kova {

bool real_user_name(TextOut name) {
  wchar_t wide[kWideCapacity];
  DWORD units = kWideCapacity;
  return ::GetUserNameW(wide, &units) != 0 && from_wide(wide, name);
}

bool host_name(TextOut name) {
  wchar_t wide[kWideCapacity];
  DWORD units = kWideCapacity;
  return ::GetComputerNameExW(ComputerNameDnsHostname, wide, &units) != 0 && from_wide(wide, name);
}

}  // namespace kova

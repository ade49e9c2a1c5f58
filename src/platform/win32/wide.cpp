#include "platform/win32/wide.h"

#include <windows.h>

#include "base/text.h"

namespace kova {

bool to_wide(const char* text, wchar_t (&out)[kWideCapacity]) {
  return ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, out, kWideCapacity) > 0;
}

bool from_wide(const wchar_t* text, TextOut out) {
  return ::WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), static_cast<int>(out.capacity()),
                               nullptr, nullptr) > 0;
}

}  // namespace kova

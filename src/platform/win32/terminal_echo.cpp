#include "platform/terminal_echo.h"

#include <windows.h>

namespace kova {

EchoOff::EchoOff() {
  const HANDLE terminal =
      ::CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
  DWORD mode = 0;
  if (terminal == INVALID_HANDLE_VALUE) return;
  if (::GetConsoleMode(terminal, &mode) == 0) {
    ::CloseHandle(terminal);
    return;
  }
  terminal_ = reinterpret_cast<std::intptr_t>(terminal);
  former_ = mode;
  ::SetConsoleMode(terminal, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
}

EchoOff::~EchoOff() {
  if (terminal_ == -1) return;
  const auto terminal = reinterpret_cast<HANDLE>(terminal_);
  ::SetConsoleMode(terminal, former_);
  ::CloseHandle(terminal);
}

}  // namespace kova

#include "platform/terminal.h"

#include <windows.h>

#include <atomic>

#include "platform/win32/wide.h"

namespace kova {

namespace {

/// Units of one write to the console, which takes no text of any length at once.
constexpr int kChunkUnits = 4096;

HANDLE handle_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

HANDLE open_console(const wchar_t* name) {
  return ::CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, OPEN_EXISTING, 0, nullptr);
}

/// Whether the interrupt key was pressed, and the console whose reader is to learn of it.
std::atomic<bool> interrupted{false};
std::atomic<HANDLE> read_console{INVALID_HANDLE_VALUE};

// The interrupt key ends the wait for a line, not the process. Not every system lets a read return
// at that; the return key makes it do so.
BOOL WINAPI take_interrupt(DWORD) {
  interrupted = true;
  INPUT_RECORD key{};
  key.EventType = KEY_EVENT;
  key.Event.KeyEvent.bKeyDown = TRUE;
  key.Event.KeyEvent.wRepeatCount = 1;
  key.Event.KeyEvent.wVirtualKeyCode = VK_RETURN;
  key.Event.KeyEvent.uChar.UnicodeChar = L'\r';
  DWORD written = 0;
  ::WriteConsoleInputW(read_console, &key, 1, &written);
  return TRUE;
}

/// The bytes of the longest prefix that is no longer than the limit and splits no character.
std::size_t whole_characters(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text.size();
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return end > 0 ? end : limit;
}

bool write_to_console(HANDLE console, std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = whole_characters(text, kChunkUnits);
    wchar_t wide[kChunkUnits];
    const int units =
        ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(size), wide, kChunkUnits);
    DWORD written = 0;
    if (units <= 0 ||
        ::WriteConsoleW(console, wide, static_cast<DWORD>(units), &written, nullptr) == 0) {
      return false;
    }
    text.remove_prefix(size);
  }
  return true;
}

bool mode_of(HANDLE console, std::uint32_t& mode) {
  DWORD found = 0;
  if (::GetConsoleMode(console, &found) == 0) return false;
  mode = found;
  return true;
}

constexpr DWORD kReadingLines = ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT | ENABLE_PROCESSED_INPUT;
constexpr DWORD kTakingColours =
    ENABLE_PROCESSED_OUTPUT | ENABLE_WRAP_AT_EOL_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING;

}  // namespace

Terminal::~Terminal() {
  if (is_changed_) {
    ::SetConsoleCtrlHandler(take_interrupt, FALSE);
    read_console = INVALID_HANDLE_VALUE;
    ::SetConsoleMode(handle_of(input_), former_input_mode_);
    ::SetConsoleMode(handle_of(output_), former_output_mode_);
  }
  if (input_ != -1) ::CloseHandle(handle_of(input_));
  if (output_ != -1) ::CloseHandle(handle_of(output_));
}

bool Terminal::open() {
  input_ = reinterpret_cast<std::intptr_t>(open_console(L"CONIN$"));
  output_ = reinterpret_cast<std::intptr_t>(open_console(L"CONOUT$"));
  if (input_ == -1 || output_ == -1 || !mode_of(handle_of(input_), former_input_mode_) ||
      !mode_of(handle_of(output_), former_output_mode_)) {
    return false;
  }
  is_changed_ = true;
  ::SetConsoleMode(handle_of(input_), kReadingLines);
  ::SetConsoleMode(handle_of(output_), kTakingColours);
  read_console = handle_of(input_);
  ::SetConsoleCtrlHandler(take_interrupt, TRUE);
  return true;
}

bool Terminal::write(std::string_view text) {
  return write_to_console(handle_of(output_), text);
}

void Terminal::drop_typed() {
  ::FlushConsoleInputBuffer(handle_of(input_));
}

bool Terminal::hide_typed() {
  return ::SetConsoleMode(handle_of(input_), kReadingLines & ~DWORD{ENABLE_ECHO_INPUT}) != 0;
}

bool Terminal::read_line(TextOut line) {
  wchar_t wide[kWideCapacity];
  DWORD units = 0;
  if (interrupted ||
      ::ReadConsoleW(handle_of(input_), wide, kWideCapacity - 1, &units, nullptr) == 0) {
    return false;
  }
  if (interrupted) {
    drop_typed();
    return false;
  }
  // An interrupted read brings no line end, nor does a line that is too long.
  if (units == 0 || wide[units - 1] != L'\n') return false;
  --units;
  if (units > 0 && wide[units - 1] == L'\r') --units;
  wide[units] = L'\0';
  char text[4 * kWideCapacity];
  return from_wide(wide, text) && line.copy(text);
}

unsigned Terminal::columns() const {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (::GetConsoleScreenBufferInfo(handle_of(output_), &info) == 0) return 0;
  return static_cast<unsigned>(info.srWindow.Right - info.srWindow.Left + 1);
}

bool stdout_takes_colours() {
  const HANDLE handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
  std::uint32_t mode = 0;
  return mode_of(handle, mode) && ::SetConsoleMode(handle, mode | kTakingColours) != 0;
}

// A console takes bytes in a code page of its own, and text of any language only as UTF-16.
bool write_all_to_stdout(std::string_view bytes) {
  const HANDLE handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
  std::uint32_t mode = 0;
  if (mode_of(handle, mode)) return write_to_console(handle, bytes);
  while (!bytes.empty()) {
    DWORD written = 0;
    if (::WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ==
            0 ||
        written == 0) {
      return false;
    }
    bytes.remove_prefix(written);
  }
  return true;
}

}  // namespace kova

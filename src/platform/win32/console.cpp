#include "platform/console.h"

#include <windows.h>

namespace kova {

namespace {

void write_all(DWORD stream, std::string_view bytes) {
  const HANDLE handle = ::GetStdHandle(stream);
  while (!bytes.empty()) {
    DWORD written = 0;
    if (::WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ==
            0 ||
        written == 0) {
      return;
    }
    bytes.remove_prefix(written);
  }
}

}  // namespace

// Handles know no text mode: the bytes pass as they are.
void prepare_standard_streams() {}

std::size_t read_stdin(char* data, std::size_t size) {
  DWORD got = 0;
  if (::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), data, static_cast<DWORD>(size), &got, nullptr) ==
      0) {
    return 0;
  }
  return got;
}

void write_stdout(std::string_view bytes) {
  write_all(STD_OUTPUT_HANDLE, bytes);
}

void write_stderr(std::string_view text) {
  char lines[1024];
  std::size_t used = 0;
  for (const char byte : text) {
    if (used + 2 > sizeof lines) {
      write_all(STD_ERROR_HANDLE, {lines, used});
      used = 0;
    }
    if (byte == '\n') lines[used++] = '\r';
    lines[used++] = byte;
  }
  write_all(STD_ERROR_HANDLE, {lines, used});
}

}  // namespace kova

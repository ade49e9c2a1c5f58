#include "platform/console.h"

#include <windows.h>

#include <algorithm>

#include "platform/thread.h"

namespace kova {

namespace {

constexpr std::size_t kTransferLimit = std::size_t{1} << 30;

// Another process that shares a pipe may have made it non-blocking (PIPE_NOWAIT). A read of an
// empty pipe then fails with ERROR_NO_DATA, and a write to a full one succeeds with 0 bytes.
// Nothing tells when to go on, so this waits and retries. Some systems write nothing at all when a
// write does not fit whole, so it becomes smaller.
void write_all(DWORD stream, std::string_view bytes) {
  const HANDLE handle = ::GetStdHandle(stream);
  Backoff backoff;
  std::size_t limit = kTransferLimit;
  while (!bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), limit));
    DWORD written = 0;
    if (::WriteFile(handle, bytes.data(), size, &written, nullptr) == 0) return;
    bytes.remove_prefix(written);
    if (written > 0) {
      backoff = Backoff();
      limit = kTransferLimit;
    } else {
      backoff.pause();
      limit = std::max<std::size_t>(limit / 2, 1);
    }
  }
}

}  // namespace

// Handles know no text mode: the bytes pass as they are.
void prepare_standard_streams() {}

std::size_t read_stdin(char* data, std::size_t size) {
  const HANDLE handle = ::GetStdHandle(STD_INPUT_HANDLE);
  for (Backoff backoff;; backoff.pause()) {
    DWORD got = 0;
    if (::ReadFile(handle, data, static_cast<DWORD>(size), &got, nullptr) != 0) return got;
    if (::GetLastError() != ERROR_NO_DATA) return 0;
  }
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

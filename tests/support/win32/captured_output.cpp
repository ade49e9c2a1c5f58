#include "support/captured_output.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>

namespace kova::testing {
namespace {

// The code under test writes to the system's standard handles; the C runtime's own streams, which
// the test framework prints to, keep theirs.
DWORD handle_name(Stream stream) {
  return stream == Stream::kOutput ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE;
}

HANDLE as_handle(std::intptr_t value) {
  return reinterpret_cast<HANDLE>(value);
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::intptr_t open_file(const wchar_t* path, DWORD access, DWORD disposition) {
  const HANDLE file = CreateFileW(path, access, kShareAll, nullptr, disposition,
                                  FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  if (file == INVALID_HANDLE_VALUE) std::abort();
  return reinterpret_cast<std::intptr_t>(file);
}

}  // namespace

CapturedOutput::CapturedOutput(Stream stream)
    : stream_(stream),
      original_(reinterpret_cast<std::intptr_t>(GetStdHandle(handle_name(stream)))) {
  wchar_t folder[MAX_PATH + 1];
  wchar_t path[MAX_PATH + 1];
  if (GetTempPathW(MAX_PATH, folder) == 0) std::abort();
  if (GetTempFileNameW(folder, L"cap", 0, path) == 0) std::abort();
  // Reading through a handle of its own leaves the position of the next write alone.
  file_ = open_file(path, GENERIC_WRITE | DELETE, CREATE_ALWAYS);
  reader_ = open_file(path, GENERIC_READ | DELETE, OPEN_EXISTING);
  if (!SetStdHandle(handle_name(stream), as_handle(file_))) std::abort();
}

CapturedOutput::~CapturedOutput() {
  SetStdHandle(handle_name(stream_), as_handle(original_));
  CloseHandle(as_handle(reader_));
  CloseHandle(as_handle(file_));
}

std::string CapturedOutput::take() {
  std::string bytes;
  char block[65536];
  DWORD got = 0;
  while (ReadFile(as_handle(reader_), block, sizeof block, &got, nullptr) && got > 0) {
    bytes.append(block, got);
  }
  return bytes;
}

}  // namespace kova::testing

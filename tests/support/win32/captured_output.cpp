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

HANDLE make_temporary_file() {
  wchar_t folder[MAX_PATH + 1];
  wchar_t path[MAX_PATH + 1];
  if (GetTempPathW(MAX_PATH, folder) == 0) std::abort();
  if (GetTempFileNameW(folder, L"cap", 0, path) == 0) std::abort();
  const HANDLE file =
      CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                  CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  if (file == INVALID_HANDLE_VALUE) std::abort();
  return file;
}

}  // namespace

CapturedOutput::CapturedOutput(Stream stream)
    : stream_(stream),
      file_(reinterpret_cast<std::intptr_t>(make_temporary_file())),
      original_(reinterpret_cast<std::intptr_t>(GetStdHandle(handle_name(stream)))) {
  if (!SetStdHandle(handle_name(stream), as_handle(file_))) std::abort();
}

CapturedOutput::~CapturedOutput() {
  SetStdHandle(handle_name(stream_), as_handle(original_));
  CloseHandle(as_handle(file_));
}

std::string CapturedOutput::take() {
  const HANDLE file = as_handle(file_);
  LARGE_INTEGER position;
  position.QuadPart = static_cast<LONGLONG>(taken_);
  if (!SetFilePointerEx(file, position, nullptr, FILE_BEGIN)) std::abort();
  // Reading leaves the file pointer at the end, where the next write goes.
  std::string bytes;
  char block[65536];
  DWORD got = 0;
  while (ReadFile(file, block, sizeof block, &got, nullptr) && got > 0)
    bytes.append(block, got);
  taken_ += bytes.size();
  return bytes;
}

}  // namespace kova::testing

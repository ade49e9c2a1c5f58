#include "platform/file.h"

#include <windows.h>

#include "base/ascii.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

HANDLE handle_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

HANDLE open_file(const char* path, DWORD access, DWORD share, DWORD disposition,
                 DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide)) return INVALID_HANDLE_VALUE;
  return ::CreateFileW(wide, access, share, nullptr, disposition, attributes, nullptr);
}

}  // namespace

bool is_canonical_path(const char* path) {
  wchar_t wide[kWideCapacity];
  wchar_t full[kWideCapacity];
  char resolved[4 * kWideCapacity];
  if (!to_wide(path, wide)) return false;
  const DWORD units = ::GetFullPathNameW(wide, kWideCapacity, full, nullptr);
  return units > 0 && units < kWideCapacity && from_wide(full, resolved) &&
         equal_ignoring_case(resolved, path);
}

bool is_directory(const char* path) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide)) return false;
  const DWORD attributes = ::GetFileAttributesW(wide);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

InputFile::~InputFile() {
  if (handle_ != -1) ::CloseHandle(handle_of(handle_));
}

bool InputFile::open(const char* path) {
  handle_ = reinterpret_cast<std::intptr_t>(
      open_file(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
  return handle_ != -1;
}

std::uint64_t InputFile::size() const {
  LARGE_INTEGER size{};
  if (::GetFileSizeEx(handle_of(handle_), &size) == 0) return UINT64_MAX;
  return static_cast<std::uint64_t>(size.QuadPart);
}

bool InputFile::read(char* data, std::size_t size) {
  DWORD got = 0;
  return ::ReadFile(handle_of(handle_), data, static_cast<DWORD>(size), &got, nullptr) != 0 &&
         got == size;
}

extern constinit const char kPathSeparator = '\\';

bool create_marker_file(const char* path) {
  const HANDLE file = open_file(path, GENERIC_WRITE, 0, CREATE_NEW,
                                FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_TEMPORARY);
  if (file == INVALID_HANDLE_VALUE) return false;
  const bool stored = ::FlushFileBuffers(file) != 0;
  ::CloseHandle(file);
  return stored;
}

}  // namespace kova

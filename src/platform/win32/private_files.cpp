#include "platform/private_files.h"

#include <windows.h>

#include "platform/win32/private_security.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

bool write_all(HANDLE file, std::string_view bytes) {
  DWORD written = 0;
  return ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) !=
             0 &&
         written == bytes.size() && ::FlushFileBuffers(file) != 0;
}

}  // namespace

bool make_private_folder(const char* path) {
  wchar_t wide[kWideCapacity];
  PrivateSecurity security;
  return security.get() != nullptr && to_wide(path, wide) &&
         ::CreateDirectoryW(wide, security.get()) != 0;
}

// What may be started is not a matter of the file here.
bool write_private_file(const char* path, std::string_view bytes, FileUse) {
  wchar_t wide[kWideCapacity];
  PrivateSecurity security;
  if (security.get() == nullptr || !to_wide(path, wide)) return false;
  const HANDLE file = ::CreateFileW(wide, GENERIC_WRITE, 0, security.get(), CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  const bool written = write_all(file, bytes);
  ::CloseHandle(file);
  if (!written) ::DeleteFileW(wide);
  return written;
}

bool move_without_replacing(const char* from, const char* to) {
  wchar_t wide_from[kWideCapacity];
  wchar_t wide_to[kWideCapacity];
  return to_wide(from, wide_from) && to_wide(to, wide_to) &&
         ::MoveFileExW(wide_from, wide_to, MOVEFILE_WRITE_THROUGH) != 0;
}

bool path_exists(const char* path) {
  wchar_t wide[kWideCapacity];
  return to_wide(path, wide) && ::GetFileAttributesW(wide) != INVALID_FILE_ATTRIBUTES;
}

}  // namespace kova

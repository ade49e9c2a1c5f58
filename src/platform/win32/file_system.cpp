#include "platform/file_system.h"

#include <windows.h>

#include "base/text.h"
#include "platform/file.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

// A file's space is asked for by its folder.
bool folder_of(const char* path, wchar_t (&folder)[kWideCapacity]) {
  if (!to_wide(path, folder)) return false;
  if (is_directory(path)) return true;
  wchar_t* end = nullptr;
  for (wchar_t* p = folder; *p != L'\0'; ++p) {
    if (*p == L'\\' || *p == L'/') end = p;
  }
  if (end == nullptr) return false;
  end[1] = L'\0';
  return true;
}

// Asked of the folder itself: a drive's own device may be closed to this account.
void write_name(const wchar_t* folder, TextOut out) {
  wchar_t name[kFileSystemNameCapacity] = {};
  const HANDLE opened =
      ::CreateFileW(folder, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  const bool told = opened != INVALID_HANDLE_VALUE &&
                    ::GetVolumeInformationByHandleW(opened, nullptr, 0, nullptr, nullptr, nullptr,
                                                    name, kFileSystemNameCapacity) != 0;
  if (opened != INVALID_HANDLE_VALUE) ::CloseHandle(opened);
  if (!told || !from_wide(name, out)) out.copy_cut("unnamed");
}

}  // namespace

bool read_file_system(const char* path, FileSystemFacts& facts) {
  wchar_t folder[kWideCapacity];
  wchar_t volume[kWideCapacity];
  ULARGE_INTEGER free_bytes{};
  if (!folder_of(path, folder) || ::GetVolumePathNameW(folder, volume, kWideCapacity) == 0 ||
      ::GetDiskFreeSpaceExW(folder, &free_bytes, nullptr, nullptr) == 0) {
    return false;
  }
  facts = {};
  const UINT kind = ::GetDriveTypeW(volume);
  facts.is_remote = kind == DRIVE_REMOTE;
  facts.is_in_memory = kind == DRIVE_RAMDISK;
  facts.free_bytes = free_bytes.QuadPart;
  write_name(folder, facts.name);
  return true;
}

}  // namespace kova

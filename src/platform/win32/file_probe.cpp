#include "platform/file_probe.h"

#include <windows.h>

#include <aclapi.h>

#include <algorithm>

#include "platform/file.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kProbePathCapacity = 1024;

HANDLE open_existing(const char* path, DWORD access) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide)) return INVALID_HANDLE_VALUE;
  return ::CreateFileW(wide, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool is_granted(PSECURITY_DESCRIPTOR descriptor, HANDLE token, DWORD wanted) {
  GENERIC_MAPPING mapping{.GenericRead = FILE_GENERIC_READ,
                          .GenericWrite = FILE_GENERIC_WRITE,
                          .GenericExecute = FILE_GENERIC_EXECUTE,
                          .GenericAll = FILE_ALL_ACCESS};
  PRIVILEGE_SET privileges{};
  DWORD size = sizeof privileges;
  DWORD granted = 0;
  BOOL allowed = FALSE;
  return ::AccessCheck(descriptor, token, wanted, &mapping, &privileges, &size, &granted,
                       &allowed) != 0 &&
         allowed != FALSE;
}

bool may(const wchar_t* path, DWORD wanted) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  constexpr SECURITY_INFORMATION kParts =
      OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
  if (::GetNamedSecurityInfoW(path, SE_FILE_OBJECT, kParts, nullptr, nullptr, nullptr, nullptr,
                              &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  HANDLE own = nullptr;
  HANDLE token = nullptr;
  bool granted = false;
  if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &own) != 0) {
    if (::DuplicateToken(own, SecurityIdentification, &token) != 0) {
      granted = is_granted(descriptor, token, wanted);
      ::CloseHandle(token);
    }
    ::CloseHandle(own);
  }
  ::LocalFree(descriptor);
  return granted;
}

HANDLE create_new(const wchar_t* path) {
  return ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

// The file is not opened for writing: while it is, a server's own opening would fail and its record
// be lost.
bool can_append(const char* path) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide)) return false;
  const DWORD attributes = ::GetFileAttributesW(wide);
  constexpr DWORD kRefusing = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & kRefusing) == 0 &&
         may(wide, FILE_APPEND_DATA);
}

CreateProbe probe_exclusive_create(const char* folder, const char* name) {
  char path[kProbePathCapacity];
  wchar_t wide[kWideCapacity];
  if (!TextOut(path).format("%s\\%s", folder, name) || !to_wide(path, wide)) {
    return CreateProbe::kRefused;
  }
  const HANDLE first = create_new(wide);
  if (first == INVALID_HANDLE_VALUE) return CreateProbe::kRefused;
  ::CloseHandle(first);
  const HANDLE second = create_new(wide);
  if (second != INVALID_HANDLE_VALUE) ::CloseHandle(second);
  if (::DeleteFileW(wide) == 0) return CreateProbe::kLeftBehind;
  return second != INVALID_HANDLE_VALUE ? CreateProbe::kNotExclusive : CreateProbe::kWorks;
}

bool can_sync_folder(const char* folder) {
  return is_directory(folder);
}

bool read_file_end(const char* path, char* data, std::size_t capacity, std::size_t& length) {
  const HANDLE file = open_existing(path, GENERIC_READ);
  if (file == INVALID_HANDLE_VALUE) return false;
  LARGE_INTEGER size{};
  DWORD got = 0;
  bool read = ::GetFileSizeEx(file, &size) != 0;
  const auto wanted = std::min<LONGLONG>(size.QuadPart, static_cast<LONGLONG>(capacity));
  LARGE_INTEGER begin{};
  begin.QuadPart = size.QuadPart - wanted;
  read = read && ::SetFilePointerEx(file, begin, nullptr, FILE_BEGIN) != 0 &&
         ::ReadFile(file, data, static_cast<DWORD>(wanted), &got, nullptr) != 0;
  ::CloseHandle(file);
  length = got;
  return read;
}

}  // namespace kova

#include "platform/durable_file.h"

#include <windows.h>

#include "platform/win32/private_security.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

HANDLE handle_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

HANDLE open_private(const char* path, DWORD disposition) {
  wchar_t wide[kWideCapacity];
  PrivateSecurity security;
  if (security.get() == nullptr || !to_wide(path, wide)) return INVALID_HANDLE_VALUE;
  return ::CreateFileW(wide, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, security.get(),
                       disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool write_at(HANDLE file, std::string_view bytes, LONGLONG offset) {
  LARGE_INTEGER position{};
  position.QuadPart = offset;
  DWORD written = 0;
  return ::SetFilePointerEx(file, position, nullptr, FILE_BEGIN) != 0 &&
         ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) !=
             0 &&
         written == bytes.size() && ::FlushFileBuffers(file) != 0;
}

/// Stands for whatever size the file has.
constexpr std::uint64_t kAnySize = UINT64_MAX;

bool append_locked(HANDLE file, std::uint64_t size, std::string_view record) {
  LARGE_INTEGER end{};
  if (::GetFileSizeEx(file, &end) == 0) return false;
  if (size != kAnySize && static_cast<std::uint64_t>(end.QuadPart) != size) return false;
  if (write_at(file, record, end.QuadPart)) return true;
  ::SetFilePointerEx(file, end, nullptr, FILE_BEGIN);
  ::SetEndOfFile(file);
  return false;
}

bool append(const char* path, std::uint64_t size, std::string_view record) {
  const HANDLE file = open_private(path, OPEN_ALWAYS);
  if (file == INVALID_HANDLE_VALUE) return false;
  // The lock lies beyond every byte that is ever written: readers are not kept out.
  OVERLAPPED place{};
  place.OffsetHigh = 0x7FFFFFFF;
  const bool appended = ::LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &place) != 0 &&
                        append_locked(file, size, record);
  ::UnlockFileEx(file, 0, 1, 0, &place);
  ::CloseHandle(file);
  return appended;
}

}  // namespace

bool append_durably(const char* path, std::string_view record) {
  return append(path, kAnySize, record);
}

bool append_durably_at(const char* path, std::uint64_t size, std::string_view record) {
  return append(path, size, record);
}

PrivateFile::~PrivateFile() {
  close();
}

void PrivateFile::close() {
  if (handle_ != -1) ::CloseHandle(handle_of(handle_));
  handle_ = -1;
}

bool PrivateFile::create(const char* path) {
  handle_ = reinterpret_cast<std::intptr_t>(open_private(path, CREATE_NEW));
  return handle_ != -1;
}

bool PrivateFile::store(std::string_view bytes) {
  return write_at(handle_of(handle_), bytes, 0);
}

}  // namespace kova

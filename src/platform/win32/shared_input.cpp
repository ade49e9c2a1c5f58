#include "platform/shared_input.h"

#include <windows.h>

#include <algorithm>

#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kReadLimit = std::size_t{1} << 30;

HANDLE handle_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

}  // namespace

SharedInput& SharedInput::operator=(SharedInput&& other) noexcept {
  if (this != &other) {
    close();
    handle_ = other.handle_;
    other.handle_ = -1;
  }
  return *this;
}

// A reader that did not share everything would make the server lose its next record.
bool SharedInput::open(const char* path) {
  close();
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide)) return false;
  handle_ = reinterpret_cast<std::intptr_t>(
      ::CreateFileW(wide, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  return handle_ != -1;
}

void SharedInput::close() {
  if (handle_ != -1) ::CloseHandle(handle_of(handle_));
  handle_ = -1;
}

bool SharedInput::read(char* data, std::size_t size, std::size_t& got) {
  DWORD count = 0;
  const auto wanted = static_cast<DWORD>(std::min(size, kReadLimit));
  const bool good = ::ReadFile(handle_of(handle_), data, wanted, &count, nullptr) != 0 ||
                    ::GetLastError() == ERROR_BROKEN_PIPE;
  got = count;
  return good;
}

bool SharedInput::rewind() {
  return ::SetFilePointerEx(handle_of(handle_), {}, nullptr, FILE_BEGIN) != 0;
}

std::optional<std::uint64_t> SharedInput::size() const {
  LARGE_INTEGER size{};
  if (::GetFileSizeEx(handle_of(handle_), &size) == 0) return {};
  return static_cast<std::uint64_t>(size.QuadPart);
}

bool SharedInput::identity(FileIdentity& identity) const {
  BY_HANDLE_FILE_INFORMATION facts{};
  if (::GetFileInformationByHandle(handle_of(handle_), &facts) == 0) return false;
  identity = {.volume = facts.dwVolumeSerialNumber,
              .file = (std::uint64_t{facts.nFileIndexHigh} << 32U) | facts.nFileIndexLow};
  return true;
}

bool stderr_is_terminal() {
  DWORD mode = 0;
  return ::GetConsoleMode(::GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
}

}  // namespace kova

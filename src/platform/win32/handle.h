// Handles of the system that close themselves.
#pragma once

#include <windows.h>

#include <cstdint>
#include <utility>

namespace kova {

/// Closes its handle at destruction; null when there is none.
class Handle {
 public:
  explicit Handle(HANDLE handle = nullptr) : handle_(handle) {}
  ~Handle() { close(); }
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  [[nodiscard]] HANDLE get() const { return handle_; }
  [[nodiscard]] HANDLE* out() { return &handle_; }
  [[nodiscard]] std::intptr_t release() {
    return reinterpret_cast<std::intptr_t>(std::exchange(handle_, nullptr));
  }
  void close() {
    if (handle_ != nullptr) ::CloseHandle(std::exchange(handle_, nullptr));
  }

 private:
  HANDLE handle_;
};

/// Opens or creates a file; a handle of null when that fails.
[[nodiscard]] inline Handle open_handle(const wchar_t* path, DWORD access, DWORD share,
                                        DWORD disposition,
                                        DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
  const HANDLE file = ::CreateFileW(path, access, share, nullptr, disposition, attributes, nullptr);
  return Handle(file != INVALID_HANDLE_VALUE ? file : nullptr);
}

}  // namespace kova

#include "platform/record_file.h"

#include <windows.h>

#include <string_view>

#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/win32/handle.h"
#include "platform/win32/record_turn.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Devices and pipes: opening one only to look at it could take it from its server.
bool is_device(std::wstring_view path) {
  return path.starts_with(LR"(\\.\)");
}

bool is_same(HANDLE one, HANDLE other) {
  BY_HANDLE_FILE_INFORMATION a{};
  BY_HANDLE_FILE_INFORMATION b{};
  return ::GetFileInformationByHandle(one, &a) != 0 &&
         ::GetFileInformationByHandle(other, &b) != 0 &&
         a.dwVolumeSerialNumber == b.dwVolumeSerialNumber && a.nFileIndexHigh == b.nFileIndexHigh &&
         a.nFileIndexLow == b.nFileIndexLow;
}

// Consoles have no identity, so every console counts as standard output.
bool is_standard_output_handle(HANDLE file) {
  const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  if (output == nullptr || output == INVALID_HANDLE_VALUE) return false;
  const DWORD type = ::GetFileType(output);
  if (type != ::GetFileType(file)) return false;
  return type == FILE_TYPE_CHAR || (type == FILE_TYPE_DISK && is_same(file, output));
}

// Fails at once while another program holds the file. After a turn that a killed process left
// behind, retries until the system has closed that process's file.
Handle open_for_record(const wchar_t* path, const RecordTurn& turn, std::uint64_t until_ms) {
  for (Backoff backoff;;) {
    Handle file = open_handle(path, FILE_APPEND_DATA, FILE_SHARE_READ, OPEN_ALWAYS);
    const bool opened = file.get() != nullptr;
    if (opened || !turn.was_abandoned() || ::GetLastError() != ERROR_SHARING_VIOLATION) return file;
    const std::uint64_t now = tick_ms();
    if (now >= until_ms) return file;
    backoff.pause(static_cast<std::uint32_t>(until_ms - now));
  }
}

// A file that is open for appending alone cannot be cut, so it is opened anew, in the same turn.
// When it is no longer as long as it was after the write, another record follows, and nothing is
// cut off.
void take_back(const wchar_t* path, LARGE_INTEGER end, DWORD written) {
  const Handle file = open_handle(path, FILE_WRITE_DATA, FILE_SHARE_READ, OPEN_EXISTING);
  LARGE_INTEGER size{};
  if (file.get() == nullptr || ::GetFileSizeEx(file.get(), &size) == 0 ||
      size.QuadPart != end.QuadPart || size.QuadPart < written) {
    return;
  }
  FILE_END_OF_FILE_INFO before{};
  before.EndOfFile.QuadPart = size.QuadPart - written;
  ::SetFileInformationByHandle(file.get(), FileEndOfFileInfo, &before, sizeof before);
}

}  // namespace

void append_record(const char* path, std::string_view record, std::uint32_t wait_ms) {
  const std::uint64_t until_ms = tick_ms() + wait_ms;
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide)) return;
  const RecordTurn turn(is_device(wide) ? nullptr : wide, wait_ms);
  Handle file = open_for_record(wide, turn, until_ms);
  if (file.get() == nullptr || is_standard_output_handle(file.get())) return;
  DWORD written = 0;
  if (::WriteFile(file.get(), record.data(), static_cast<DWORD>(record.size()), &written,
                  nullptr) != 0) {
    ::FlushFileBuffers(file.get());
  }
  LARGE_INTEGER end{};
  if (written == 0 || written == record.size() || ::GetFileSizeEx(file.get(), &end) == 0) return;
  file.close();
  take_back(wide, end, written);
}

bool is_standard_output(const char* path) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(path, wide) || is_device(wide)) return false;
  const Handle file = open_handle(wide, FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING);
  return file.get() != nullptr && is_standard_output_handle(file.get());
}

}  // namespace kova

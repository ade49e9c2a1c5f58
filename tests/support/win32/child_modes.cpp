#include <windows.h>

#include <cstdlib>
#include <string>

#include "platform/console.h"
#include "support/child_modes.h"

namespace kova::testing {

void end_quietly_after_a_crash() {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
}

void crash_now() {
  RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  std::abort();
}

bool open_inheritable_file(const char* path) {
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const HANDLE file = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  return file != INVALID_HANDLE_VALUE;
}

// Handles of files, pipes and devices among the numbers that a small process uses; the system's own
// objects (events, keys, threads) are no files.
void report_handles() {
  constexpr ULONG_PTR kHighest = 4096;
  std::string report;
  for (ULONG_PTR value = 4; value < kHighest; value += 4) {
    const HANDLE handle = reinterpret_cast<HANDLE>(value);
    if (handle == GetStdHandle(STD_INPUT_HANDLE) || handle == GetStdHandle(STD_OUTPUT_HANDLE) ||
        handle == GetStdHandle(STD_ERROR_HANDLE)) {
      continue;
    }
    DWORD flags = 0;
    if (!GetHandleInformation(handle, &flags)) continue;
    const DWORD type = GetFileType(handle);
    if (type == FILE_TYPE_DISK || type == FILE_TYPE_PIPE) report += std::to_string(value) + "\n";
  }
  write_stdout(report.empty() ? "none\n" : report);
}

}  // namespace kova::testing

#include <windows.h>

#include <cstdlib>
#include <string>

#include "platform/console.h"
#include "platform/process.h"
#include "support/child_modes.h"

namespace kova::testing {

void end_quietly_after_a_crash() {
  SetUnhandledExceptionFilter([](EXCEPTION_POINTERS* exception) -> LONG {
    TerminateProcess(GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
    return EXCEPTION_CONTINUE_SEARCH;
  });
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

namespace {

bool is_standard_stream(HANDLE handle) {
  return handle == GetStdHandle(STD_INPUT_HANDLE) || handle == GetStdHandle(STD_OUTPUT_HANDLE) ||
         handle == GetStdHandle(STD_ERROR_HANDLE);
}

// Not the current directory, which every process holds open, nor the system's own objects (events,
// keys, threads).
bool is_file_or_pipe(HANDLE handle) {
  DWORD flags = 0;
  if (!GetHandleInformation(handle, &flags)) return false;
  const DWORD type = GetFileType(handle);
  BY_HANDLE_FILE_INFORMATION information;
  const bool is_directory = GetFileInformationByHandle(handle, &information) &&
                            (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return (type == FILE_TYPE_DISK && !is_directory) || type == FILE_TYPE_PIPE;
}

}  // namespace

void report_handles() {
  // A small process uses low numbers.
  constexpr ULONG_PTR kHighest = 4096;
  std::string report;
  for (ULONG_PTR value = 4; value < kHighest; value += 4) {
    const HANDLE handle = reinterpret_cast<HANDLE>(value);
    if (is_file_or_pipe(handle) && !is_standard_stream(handle)) {
      report += std::to_string(value) + "\n";
    }
  }
  write_stdout(report.empty() ? "none\n" : report);
}

void report_preparation() {
  SetErrorMode(SEM_NOOPENFILEERRORBOX);
  prepare_process();
  write_stdout("error mode " + std::to_string(GetErrorMode()) + "\n");
}

}  // namespace kova::testing

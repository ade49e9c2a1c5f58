#include <windows.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/console.h"
#include "platform/process.h"
#include "support/child_modes.h"
#include "support/win32/child_modes.h"

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

namespace {

std::string name_of(DWORD stream) {
  constexpr std::size_t kCapacity = 256;
  alignas(FILE_NAME_INFO) char room[sizeof(FILE_NAME_INFO) + kCapacity * sizeof(wchar_t)];
  if (!GetFileInformationByHandleEx(GetStdHandle(stream), FileNameInfo, room, sizeof room)) {
    return "error " + std::to_string(GetLastError());
  }
  const auto& info = *reinterpret_cast<const FILE_NAME_INFO*>(room);
  // The names of pipes are ASCII.
  std::string name;
  for (DWORD i = 0; i < info.FileNameLength / sizeof(wchar_t); ++i) {
    name += static_cast<char>(info.FileName[i]);
  }
  return name;
}

int report_stream_names() {
  write_stdout(name_of(STD_INPUT_HANDLE) + "\n" + name_of(STD_OUTPUT_HANDLE) + "\n");
  return 0;
}

}  // namespace

ChildMode find_platform_child_mode(std::string_view argument) {
  return argument == kChildStreamNames ? report_stream_names : nullptr;
}

}  // namespace kova::testing

#include <windows.h>

// Needs what windows.h declares.
#include <psapi.h>

#include <string_view>
#include <utility>

#include "spawn.h"

namespace kova_bench {

namespace {

HANDLE handle_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

void close_handle(std::intptr_t& handle) {
  if (handle != -1) ::CloseHandle(handle_of(handle));
  handle = -1;
}

struct Pipe {
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;

  [[nodiscard]] bool open() { return ::CreatePipe(&read_end, &write_end, nullptr, 0) != 0; }
};

bool make_inheritable(HANDLE handle) {
  return ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) != 0;
}

std::wstring wide(const char* text) {
  wchar_t units[MAX_PATH];
  return ::MultiByteToWideChar(CP_UTF8, 0, text, -1, units, MAX_PATH) != 0 ? units : L"";
}

std::wstring command_line(const char* path, const char* argument) {
  const std::wstring program = L"\"" + wide(path) + L"\"";
  return argument != nullptr ? program + L" \"" + wide(argument) + L"\"" : program;
}

}  // namespace

Spawned::~Spawned() {
  close_handle(input_);
  close_handle(output_);
  if (process_ != -1) static_cast<void>(wait());
}

bool Spawned::start(const char* path, const char* argument) {
  Pipe to_child;
  Pipe from_child;
  std::wstring line = command_line(path, argument);
  if (!to_child.open() || !from_child.open() || !make_inheritable(to_child.read_end) ||
      !make_inheritable(from_child.write_end)) {
    return false;
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = to_child.read_end;
  startup.hStdOutput = from_child.write_end;
  startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION created{};
  const bool started =
      ::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                       nullptr, &startup, &created) != 0;
  ::CloseHandle(to_child.read_end);
  ::CloseHandle(from_child.write_end);
  input_ = reinterpret_cast<std::intptr_t>(to_child.write_end);
  output_ = reinterpret_cast<std::intptr_t>(from_child.read_end);
  if (!started) return false;
  ::CloseHandle(created.hThread);
  process_ = reinterpret_cast<std::intptr_t>(created.hProcess);
  return true;
}

bool Spawned::write(std::string_view bytes) {
  DWORD written = 0;
  return ::WriteFile(handle_of(input_), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                     nullptr) != 0 &&
         written == bytes.size();
}

std::size_t Spawned::read_some(char* data, std::size_t size) {
  DWORD got = 0;
  if (::ReadFile(handle_of(output_), data, static_cast<DWORD>(size), &got, nullptr) == 0) return 0;
  return got;
}

void Spawned::close_input() {
  close_handle(input_);
}

bool Spawned::wait() {
  DWORD exit_code = 1;
  const bool ended = ::WaitForSingleObject(handle_of(process_), INFINITE) == WAIT_OBJECT_0 &&
                     ::GetExitCodeProcess(handle_of(process_), &exit_code) != 0;
  close_handle(process_);
  return ended && exit_code == 0;
}

std::uint64_t Spawned::resident_bytes() const {
  PROCESS_MEMORY_COUNTERS counters{};
  if (::GetProcessMemoryInfo(handle_of(process_), &counters, sizeof counters) == 0) return 0;
  return counters.WorkingSetSize;
}

}  // namespace kova_bench

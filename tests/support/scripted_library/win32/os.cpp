#include "os.h"

#include <windows.h>

#include <cstdint>
#include <cstdlib>

namespace scripted {

namespace {

constexpr std::uintptr_t kLastHandle = 0x1000;

HANDLE log_handle = INVALID_HANDLE_VALUE;

// Wine looks the file's end up before it writes there, so processes write one at a time.
class LogTurn {
 public:
  LogTurn() {
    if (mutex_ == nullptr) mutex_ = ::CreateMutexA(nullptr, FALSE, "scripted-library-log");
    ::WaitForSingleObject(mutex_, INFINITE);
  }
  ~LogTurn() { ::ReleaseMutex(mutex_); }
  LogTurn(const LogTurn&) = delete;
  LogTurn& operator=(const LogTurn&) = delete;

 private:
  static inline HANDLE mutex_ = nullptr;
};

void write_all(DWORD stream, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    DWORD written = 0;
    const auto size = static_cast<DWORD>(text.size() - done);
    if (!::WriteFile(::GetStdHandle(stream), text.data() + done, size, &written, nullptr)) return;
    done += written;
  }
}

// Ends the process with the exception's code, as it would end without a debugger.
LONG CALLBACK end_silently(EXCEPTION_POINTERS*) {
  return EXCEPTION_EXECUTE_HANDLER;
}

const char* kind_of(DWORD type) {
  if (type == FILE_TYPE_PIPE) return "pipe";
  if (type == FILE_TYPE_DISK) return "file";
  return "other";
}

}  // namespace

std::string environment(const char* name) {
  char value[1024];
  const DWORD length = ::GetEnvironmentVariableA(name, value, sizeof value);
  return length < sizeof value ? std::string(value, length) : std::string();
}

unsigned long process_id() {
  return ::GetCurrentProcessId();
}

void append_to_log(const std::string& path, const std::string& line) {
  if (log_handle == INVALID_HANDLE_VALUE) {
    log_handle = ::CreateFileA(path.c_str(), FILE_APPEND_DATA,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  const LogTurn turn;
  DWORD written = 0;
  const auto size = static_cast<DWORD>(line.size());
  if (!::WriteFile(log_handle, line.data(), size, &written, nullptr)) std::exit(98);
}

void sleep_ms(unsigned milliseconds) {
  ::Sleep(milliseconds);
}

void crash() {
  ::SetUnhandledExceptionFilter(end_silently);
  ::RaiseException(static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION), EXCEPTION_NONCONTINUABLE, 0,
                   nullptr);
  std::abort();
}

void hang() {
  for (;;) ::Sleep(INFINITE);
}

void exit_now(unsigned code) {
  ::TerminateProcess(::GetCurrentProcess(), code);
  std::abort();
}

// The host's executable, which waits for input. It holds the other end of its input itself, so that
// none comes and none ends.
unsigned long leave_process() {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = ::GetStdHandle(STD_OUTPUT_HANDLE);
  startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
  HANDLE write_end = nullptr;
  char host[MAX_PATH];
  PROCESS_INFORMATION started{};
  if (!::CreatePipe(&startup.hStdInput, &write_end, &inheritable, 0) ||
      ::GetModuleFileNameA(nullptr, host, sizeof host) == 0 ||
      !::CreateProcessA(host, nullptr, nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &started)) {
    std::exit(96);
  }
  ::CloseHandle(write_end);
  ::CloseHandle(startup.hStdInput);
  ::CloseHandle(started.hThread);
  ::CloseHandle(started.hProcess);
  return started.dwProcessId;
}

void write_stdout(const std::string& text) {
  write_all(STD_OUTPUT_HANDLE, text);
}
void write_stderr(const std::string& text) {
  write_all(STD_ERROR_HANDLE, text);
}

std::string open_streams() {
  std::string out;
  for (std::uintptr_t number = 4; number < kLastHandle; number += 4) {
    const auto handle = reinterpret_cast<HANDLE>(number);
    const DWORD type = handle == log_handle ? FILE_TYPE_UNKNOWN : ::GetFileType(handle);
    if (type == FILE_TYPE_UNKNOWN) continue;
    out += (out.empty() ? "" : " ") + std::to_string(number) + ":" + kind_of(type);
  }
  return out;
}

}  // namespace scripted

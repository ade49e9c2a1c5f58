#include "platform/program.h"

#include <windows.h>

#include <algorithm>
#include <utility>

#include "platform/clock.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kCommandLineCapacity = kWideCapacity;
constexpr std::size_t kReadSize = 4096;
constexpr DWORD kPollMs = 5;

class Handle {
 public:
  explicit Handle(HANDLE handle = nullptr) : handle_(handle) {}
  ~Handle() { close(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  [[nodiscard]] HANDLE get() const { return handle_; }
  [[nodiscard]] HANDLE* out() { return &handle_; }
  [[nodiscard]] bool is_open() const {
    return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE;
  }
  void close() {
    if (is_open()) ::CloseHandle(handle_);
    handle_ = nullptr;
  }

 private:
  HANDLE handle_;
};

struct Streams {
  HANDLE input;
  HANDLE output;
  HANDLE error;
};

bool make_command_line(const char* path, const char* first, const char* second,
                       wchar_t (&wide)[kWideCapacity]) {
  char text[kCommandLineCapacity];
  TextOut out(text);
  for (const char* part : {path, first, second}) {
    if (part != nullptr && !out.format("%s\"%s\"", out.length() > 0 ? " " : "", part)) return false;
  }
  return to_wide(text, wide);
}

// The program ends with this process: the job's last handle is held here alone.
bool keep_with_this_process(HANDLE process, Handle& job) {
  *job.out() = ::CreateJobObjectW(nullptr, nullptr);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  return job.is_open() &&
         ::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits,
                                   sizeof limits) != 0 &&
         ::AssignProcessToJobObject(job.get(), process) != 0;
}

/// Starts the program suspended, in a job of its own, and lets it run.
bool start(const char* path, wchar_t* command_line, const Streams& streams, Handle& process,
           Handle& job) {
  wchar_t wide_path[kWideCapacity];
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = streams.input;
  startup.hStdOutput = streams.output;
  startup.hStdError = streams.error;
  PROCESS_INFORMATION made{};
  if (!to_wide(path, wide_path) ||
      ::CreateProcessW(wide_path, command_line, nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                       nullptr, &startup, &made) == 0) {
    return false;
  }
  *process.out() = made.hProcess;
  const Handle thread(made.hThread);
  if (!keep_with_this_process(process.get(), job) || ::ResumeThread(thread.get()) == DWORD(-1)) {
    ::TerminateProcess(process.get(), 1);
    return false;
  }
  return true;
}

bool open_pipe(Handle& read_end, Handle& write_end, Handle& own_end) {
  SECURITY_ATTRIBUTES inherited{};
  inherited.nLength = sizeof inherited;
  inherited.bInheritHandle = TRUE;
  return ::CreatePipe(read_end.out(), write_end.out(), &inherited, 0) != 0 &&
         ::SetHandleInformation(own_end.get(), HANDLE_FLAG_INHERIT, 0) != 0;
}

bool open_null_device(Handle& device) {
  SECURITY_ATTRIBUTES inherited{};
  inherited.nLength = sizeof inherited;
  inherited.bInheritHandle = TRUE;
  *device.out() = ::CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &inherited, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
  return device.is_open();
}

// An anonymous pipe is asked what it holds, since a read of an empty one would wait.
bool read_all(HANDLE pipe, TextOut& output, std::uint64_t deadline) {
  while (tick_ms() < deadline) {
    DWORD waiting = 0;
    if (::PeekNamedPipe(pipe, nullptr, 0, nullptr, &waiting, nullptr) == 0) {
      return ::GetLastError() == ERROR_BROKEN_PIPE;
    }
    if (waiting == 0) {
      ::Sleep(kPollMs);
      continue;
    }
    char bytes[kReadSize];
    DWORD got = 0;
    if (::ReadFile(pipe, bytes, std::min<DWORD>(waiting, sizeof bytes), &got, nullptr) == 0 ||
        !output.append({bytes, got})) {
      return false;
    }
  }
  return false;
}

bool ended_well(HANDLE process, std::uint64_t deadline) {
  const std::uint64_t now = tick_ms();
  const DWORD left = now < deadline ? static_cast<DWORD>(deadline - now) : 0;
  DWORD code = 1;
  return ::WaitForSingleObject(process, left) == WAIT_OBJECT_0 &&
         ::GetExitCodeProcess(process, &code) != 0 && code == 0;
}

// A console program that was started without a stream has none to hand on.
HANDLE inheritable_stream(DWORD which) {
  const HANDLE stream = ::GetStdHandle(which);
  if (stream != nullptr && stream != INVALID_HANDLE_VALUE) {
    static_cast<void>(::SetHandleInformation(stream, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT));
  }
  return stream;
}

}  // namespace

bool ask_program(const char* path, std::string_view input, TextOut output,
                 std::uint32_t timeout_ms) {
  const std::uint64_t deadline = tick_ms() + timeout_ms;
  wchar_t command_line[kWideCapacity];
  Handle child_input;
  Handle own_input;
  Handle own_output;
  Handle child_output;
  Handle null_device;
  Handle job;
  Handle process;
  if (!make_command_line(path, nullptr, nullptr, command_line) ||
      !open_pipe(child_input, own_input, own_input) ||
      !open_pipe(own_output, child_output, own_output) || !open_null_device(null_device) ||
      !start(path, command_line,
             {.input = child_input.get(), .output = child_output.get(), .error = null_device.get()},
             process, job)) {
    return false;
  }
  child_input.close();
  child_output.close();
  DWORD written = 0;
  static_cast<void>(::WriteFile(own_input.get(), input.data(), static_cast<DWORD>(input.size()),
                                &written, nullptr) != 0);
  own_input.close();
  return read_all(own_output.get(), output, deadline) && ended_well(process.get(), deadline);
}

int become_program(const char* path, const char* first, const char* second) {
  wchar_t command_line[kWideCapacity];
  Handle job;
  Handle process;
  DWORD code = 1;
  if (!make_command_line(path, first, second, command_line) ||
      !start(path, command_line,
             {.input = inheritable_stream(STD_INPUT_HANDLE),
              .output = inheritable_stream(STD_OUTPUT_HANDLE),
              .error = inheritable_stream(STD_ERROR_HANDLE)},
             process, job)) {
    return -1;
  }
  // The program alone holds the input now, so its writer sees the program close it.
  ::CloseHandle(::GetStdHandle(STD_INPUT_HANDLE));
  ::WaitForSingleObject(process.get(), INFINITE);
  return ::GetExitCodeProcess(process.get(), &code) != 0 ? static_cast<int>(code) : 1;
}

}  // namespace kova

#include "platform/process.h"

#include <windows.h>

#include <atomic>
#include <utility>

#include "base/text.h"
#include "platform/own_path.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kCommandLineCapacity = 292;
constexpr std::size_t kPipeNameCapacity = 64;
constexpr DWORD kPipeSize = 65536;
/// Room for the two start attributes.
constexpr std::size_t kAttributeListCapacity = 256;
/// For handles that a child may be given; it is given those on its list.
constexpr SECURITY_ATTRIBUTES kInheritable{.nLength = sizeof(SECURITY_ATTRIBUTES),
                                           .lpSecurityDescriptor = nullptr,
                                           .bInheritHandle = TRUE};

HANDLE handle_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

void close_handle(std::intptr_t& handle) {
  if (handle != -1) ::CloseHandle(handle_of(handle));
  handle = -1;
}

/// A pipe between this process and a child.
struct Pipe {
  Handle own_end;
  Handle child_end;
};

// A named pipe, since requests on an anonymous pipe's end cannot be cancelled. It has one instance:
// a program that opened it before us would only keep the child from starting. The name holds the
// tick count, because process numbers are reused and a pipe stays as long as anybody holds an end
// of it. LOCAL is the folder that an app container may use; elsewhere it is part of the name.
// `access` is that of the own end.
bool open_pipe(Pipe& pipe, DWORD access) {
  static constinit std::atomic<unsigned> number{0};
  char text[kPipeNameCapacity];
  wchar_t name[kWideCapacity];
  TextOut out(text);
  LARGE_INTEGER moment{};
  ::QueryPerformanceCounter(&moment);
  if (!out.format(R"(\\.\pipe\LOCAL\kova-mcp-%lu-%u-%llx)", ::GetCurrentProcessId(), ++number,
                  static_cast<unsigned long long>(moment.QuadPart)) ||
      !to_wide(text, name)) {
    return false;
  }
  const HANDLE own_end = ::CreateNamedPipeW(
      name, access | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, kPipeSize, kPipeSize, 0, nullptr);
  if (own_end == INVALID_HANDLE_VALUE) return false;
  *pipe.own_end.out() = own_end;
  SECURITY_ATTRIBUTES inheritable = kInheritable;
  const HANDLE child_end =
      ::CreateFileW(name, access == PIPE_ACCESS_INBOUND ? GENERIC_WRITE : GENERIC_READ, 0,
                    &inheritable, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (child_end == INVALID_HANDLE_VALUE) return false;
  *pipe.child_end.out() = child_end;
  return true;
}

/// One overlapped request on a pipe, cancelled when the process at its other end has ended. The end
/// of the pipe alone would not do: a process that the system has started beside the child may hold
/// the pipe for longer.
///
///     ReadFile(pipe, ..., request)     starts the request
///     wait for { done_, process }      whichever comes first
///       done_:   the bytes are there
///       process: CancelIoEx, then the result: bytes that came meanwhile, or nothing
class Transfer {
 public:
  Transfer() : done_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    request_.hEvent = done_.get();
  }

  [[nodiscard]] bool ready() const { return done_.get() != nullptr; }
  [[nodiscard]] OVERLAPPED* request() { return &request_; }
  /// Returns the bytes that the request has moved; 0 after an error or a cancellation. `started` is
  /// what the call that started the request returned.
  [[nodiscard]] DWORD finish(BOOL started, HANDLE pipe, HANDLE process) {
    if (started == 0) {
      if (::GetLastError() != ERROR_IO_PENDING) return 0;
      const HANDLE events[] = {done_.get(), process};
      if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0) {
        ::CancelIoEx(pipe, &request_);
      }
    }
    DWORD moved = 0;
    return ::GetOverlappedResult(pipe, &request_, &moved, TRUE) != 0 ? moved : 0;
  }

 private:
  Handle done_;
  OVERLAPPED request_{};
};

// A duplicate of this process's standard error for the child, so that the handle list never names
// one handle twice; the null device where there is none.
HANDLE standard_error_for_child() {
  HANDLE duplicate = nullptr;
  const HANDLE own = ::GetStdHandle(STD_ERROR_HANDLE);
  const HANDLE self = ::GetCurrentProcess();
  if (own != nullptr && own != INVALID_HANDLE_VALUE &&
      ::DuplicateHandle(self, own, self, &duplicate, 0, TRUE, DUPLICATE_SAME_ACCESS) != 0) {
    return duplicate;
  }
  SECURITY_ATTRIBUTES inheritable = kInheritable;
  const HANDLE null_device = ::CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &inheritable,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  return null_device != INVALID_HANDLE_VALUE ? null_device : nullptr;
}

// This process alone holds a handle of the job: however it ends, the job's processes end too.
HANDLE kill_on_close_job() {
  const HANDLE job = ::CreateJobObjectW(nullptr, nullptr);
  if (job == nullptr) return nullptr;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  if (::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits) !=
      0) {
    return job;
  }
  ::CloseHandle(job);
  return nullptr;
}

bool command_line(const char* argument, wchar_t (&out)[kWideCapacity]) {
  char path[kOwnPathCapacity];
  char text[kCommandLineCapacity];
  TextOut line(text);
  return own_path(path) && line.format("\"%s\"", path) &&
         (argument == nullptr || line.format(" %s", argument)) && to_wide(text, out);
}

/// What a child is started with beside its command line: the handles that it inherits, and the job
/// that it is created in, so that there is no moment in which it could outlive this process.
class StartAttributes {
 public:
  StartAttributes(HANDLE (&streams)[3], HANDLE& job) {
    SIZE_T size = sizeof storage_;
    made_ = ::InitializeProcThreadAttributeList(list(), 2, 0, &size) != 0;
    complete_ = made_ && add(PROC_THREAD_ATTRIBUTE_HANDLE_LIST, streams, sizeof streams) &&
                add(PROC_THREAD_ATTRIBUTE_JOB_LIST, &job, sizeof job);
  }
  ~StartAttributes() {
    if (made_) ::DeleteProcThreadAttributeList(list());
  }
  StartAttributes(const StartAttributes&) = delete;
  StartAttributes& operator=(const StartAttributes&) = delete;

  [[nodiscard]] bool complete() const { return complete_; }
  [[nodiscard]] LPPROC_THREAD_ATTRIBUTE_LIST list() {
    return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_);
  }

 private:
  [[nodiscard]] bool add(DWORD_PTR attribute, void* value, SIZE_T size) {
    return ::UpdateProcThreadAttribute(list(), 0, attribute, value, size, nullptr, nullptr) != 0;
  }

  alignas(16) char storage_[kAttributeListCapacity];
  bool made_;
  bool complete_;
};

// A job that forbids nesting, or a system that knows none, refuses the child's own job.
bool is_job_refusal(DWORD error) {
  BOOL in_job = FALSE;
  return (error == ERROR_ACCESS_DENIED || error == ERROR_NOT_SUPPORTED) &&
         ::IsProcessInJob(::GetCurrentProcess(), nullptr, &in_job) != 0 && in_job != 0;
}

bool create_process(wchar_t* line, HANDLE (&streams)[3], HANDLE job, PROCESS_INFORMATION& created) {
  StartAttributes attributes(streams, job);
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = streams[0];
  startup.StartupInfo.hStdOutput = streams[1];
  startup.StartupInfo.hStdError = streams[2];
  startup.lpAttributeList = attributes.list();
  return attributes.complete() &&
         ::CreateProcessW(nullptr, line, nullptr, nullptr, TRUE,
                          CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr,
                          &startup.StartupInfo, &created) != 0;
}

}  // namespace

// Without this, a damaged library or a drive without a medium waits for a click.
void prepare_process() {
  ::SetErrorMode(::GetErrorMode() | SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
}

std::uint32_t own_process_id() {
  return ::GetCurrentProcessId();
}

ChildProcess::~ChildProcess() {
  abandon();
}

bool ChildProcess::start(const char* argument) {
  job_refused_ = false;
  Pipe input;
  Pipe output;
  if (!open_pipe(input, PIPE_ACCESS_OUTBOUND) || !open_pipe(output, PIPE_ACCESS_INBOUND)) {
    return false;
  }
  const Handle child_error(standard_error_for_child());
  Handle job(kill_on_close_job());
  wchar_t line[kWideCapacity];
  if (child_error.get() == nullptr || job.get() == nullptr || !command_line(argument, line)) {
    return false;
  }
  HANDLE streams[3] = {input.child_end.get(), output.child_end.get(), child_error.get()};
  PROCESS_INFORMATION created{};
  if (!create_process(line, streams, job.get(), created)) {
    job_refused_ = is_job_refusal(::GetLastError());
    return false;
  }
  const Handle thread(created.hThread);
  Handle process(created.hProcess);
  process_ = process.release();
  guard_ = job.release();
  input_ = input.own_end.release();
  output_ = output.own_end.release();
  return true;
}

bool ChildProcess::write_input(std::string_view bytes) {
  const HANDLE pipe = handle_of(input_);
  Transfer transfer;
  while (!bytes.empty()) {
    if (!transfer.ready() || wait_within(0)) return false;
    const BOOL started = ::WriteFile(pipe, bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                                     transfer.request());
    const DWORD written = transfer.finish(started, pipe, handle_of(process_));
    if (written == 0) return false;
    bytes.remove_prefix(written);
  }
  return true;
}

void ChildProcess::close_input() {
  close_handle(input_);
}

// The child's output is in the pipe before its end is seen.
std::size_t ChildProcess::read_output(char* data, std::size_t size) {
  const HANDLE pipe = handle_of(output_);
  Transfer transfer;
  if (!transfer.ready()) return 0;
  const BOOL started =
      ::ReadFile(pipe, data, static_cast<DWORD>(size), nullptr, transfer.request());
  return transfer.finish(started, pipe, handle_of(process_));
}

void ChildProcess::terminate(std::uint32_t exit_code) {
  // -1 is the handle of this process itself.
  if (process_ == -1) return;
  ::TerminateProcess(handle_of(process_), exit_code);
}

void ChildProcess::wait() {
  static_cast<void>(wait_within(INFINITE));
}

bool ChildProcess::wait_within(std::uint32_t milliseconds) {
  return ::WaitForSingleObject(handle_of(process_), milliseconds) == WAIT_OBJECT_0;
}

void ChildProcess::abandon() {
  close_handle(input_);
  close_handle(output_);
  close_handle(guard_);
  close_handle(process_);
}

std::uint32_t ChildProcess::collect() {
  DWORD exit_code = 1;
  if (::GetExitCodeProcess(handle_of(process_), &exit_code) == 0) exit_code = 1;
  abandon();
  return exit_code;
}

}  // namespace kova

#include "platform/process.h"

#include <windows.h>

#include <atomic>
#include <utility>

#include "base/text.h"
#include "platform/own_path.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kCommandLineCapacity = 292;
constexpr std::size_t kPipeNameCapacity = 64;
constexpr DWORD kPipeSize = 65536;
// Holds the two start attributes with room to spare.
constexpr std::size_t kAttributeListCapacity = 256;

HANDLE handle_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

/// Closes its handle at destruction.
class Handle {
 public:
  explicit Handle(HANDLE handle = nullptr) : handle_(handle) {}
  ~Handle() { close(); }
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

void close_handle(std::intptr_t& handle) {
  if (handle != -1) ::CloseHandle(handle_of(handle));
  handle = -1;
}

// The pipe of the child's output; unlike an anonymous one its read end takes requests that can be
// given up. One instance and no sharing: nobody else can come in between.
bool open_output_pipe(Handle& read_end, Handle& write_end) {
  static constinit std::atomic<unsigned> number{0};
  char text[kPipeNameCapacity];
  wchar_t name[kWideCapacity];
  TextOut out(text);
  if (!out.format(R"(\\.\pipe\kova-mcp-%lu-%u)", ::GetCurrentProcessId(), ++number) ||
      !to_wide(text, name)) {
    return false;
  }
  const HANDLE reader = ::CreateNamedPipeW(
      name, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 0, kPipeSize, 0, nullptr);
  if (reader == INVALID_HANDLE_VALUE) return false;
  *read_end.out() = reader;
  const HANDLE writer =
      ::CreateFileW(name, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (writer == INVALID_HANDLE_VALUE) return false;
  *write_end.out() = writer;
  return true;
}

bool make_inheritable(HANDLE handle) {
  return ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) != 0;
}

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
  const HANDLE null_device = ::CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (null_device == INVALID_HANDLE_VALUE) return nullptr;
  static_cast<void>(make_inheritable(null_device));
  return null_device;
}

// Its last handle is held by this process alone: however that ends, the job's processes end too.
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
  return own_path(path) && line.format("\"%s\" %s", path, argument) && to_wide(text, out);
}

/// What a child is started with beside its command line: the handles that it inherits, and the job
/// that it is born in, so that there is no moment in which it could outlive this process.
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

std::uint32_t own_process_id() {
  return ::GetCurrentProcessId();
}

ChildProcess::~ChildProcess() {
  close_handle(input_);
  close_handle(output_);
  close_handle(guard_);
  close_handle(process_);
}

bool ChildProcess::start(const char* argument) {
  Handle child_input;
  Handle parent_input;
  Handle parent_output;
  Handle child_output;
  if (::CreatePipe(child_input.out(), parent_input.out(), nullptr, 0) == 0 ||
      !open_output_pipe(parent_output, child_output)) {
    return false;
  }
  const Handle child_error(standard_error_for_child());
  Handle job(kill_on_close_job());
  wchar_t line[kWideCapacity];
  if (child_error.get() == nullptr || job.get() == nullptr || !command_line(argument, line) ||
      !make_inheritable(child_input.get()) || !make_inheritable(child_output.get())) {
    return false;
  }
  HANDLE streams[3] = {child_input.get(), child_output.get(), child_error.get()};
  PROCESS_INFORMATION created{};
  if (!create_process(line, streams, job.get(), created)) return false;
  const Handle thread(created.hThread);
  Handle process(created.hProcess);
  process_ = process.release();
  guard_ = job.release();
  input_ = parent_input.release();
  output_ = parent_output.release();
  return true;
}

void ChildProcess::write_input(std::string_view bytes) {
  while (!bytes.empty()) {
    DWORD written = 0;
    if (::WriteFile(handle_of(input_), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                    nullptr) == 0 ||
        written == 0) {
      return;
    }
    bytes.remove_prefix(written);
  }
}

void ChildProcess::close_input() {
  close_handle(input_);
}

// What the child wrote is there before its end is seen. After that nothing more is waited for: a
// process that the system has started beside the child may hold the pipe for longer.
std::size_t ChildProcess::read_output(char* data, std::size_t size) {
  const Handle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED request{};
  request.hEvent = done.get();
  if (done.get() == nullptr ||
      (::ReadFile(handle_of(output_), data, static_cast<DWORD>(size), nullptr, &request) == 0 &&
       ::GetLastError() != ERROR_IO_PENDING)) {
    return 0;
  }
  const HANDLE events[] = {done.get(), handle_of(process_)};
  if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0) {
    ::CancelIoEx(handle_of(output_), &request);
  }
  DWORD got = 0;
  return ::GetOverlappedResult(handle_of(output_), &request, &got, TRUE) != 0 ? got : 0;
}

void ChildProcess::terminate(std::uint32_t exit_code) {
  ::TerminateProcess(handle_of(process_), exit_code);
}

void ChildProcess::wait() {
  ::WaitForSingleObject(handle_of(process_), INFINITE);
}

std::uint32_t ChildProcess::collect() {
  DWORD exit_code = 1;
  if (::GetExitCodeProcess(handle_of(process_), &exit_code) == 0) exit_code = 1;
  close_handle(process_);
  close_handle(guard_);
  return exit_code;
}

}  // namespace kova

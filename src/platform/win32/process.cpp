#include "platform/process.h"

#include <windows.h>

#include <utility>

#include "base/text.h"
#include "platform/own_path.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr std::size_t kCommandLineCapacity = 292;
constexpr DWORD kOutputPollMs = 10;
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

/// Waits until there is output to read, or the process has ended and left none.
bool more_output(HANDLE output, HANDLE process) {
  for (;;) {
    const bool ended = ::WaitForSingleObject(process, kOutputPollMs) != WAIT_TIMEOUT;
    DWORD available = 0;
    if (::PeekNamedPipe(output, nullptr, 0, nullptr, &available, nullptr) == 0) return false;
    if (available > 0) return true;
    if (ended) return false;
  }
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
      ::CreatePipe(parent_output.out(), child_output.out(), nullptr, 0) == 0) {
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

std::size_t ChildProcess::read_output(char* data, std::size_t size) {
  // The pipe may outlive the child in a process that the system started beside it, so after the
  // end of a line the child's own end counts as the end of its output.
  if (line_ended_ && !more_output(handle_of(output_), handle_of(process_))) return 0;
  DWORD got = 0;
  if (::ReadFile(handle_of(output_), data, static_cast<DWORD>(size), &got, nullptr) == 0) return 0;
  line_ended_ = got > 0 && data[got - 1] == '\n';
  return got;
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

#include "platform/service_process.h"

#include <windows.h>

#include "base/text.h"
#include "platform/clock.h"
#include "platform/win32/handle.h"
#include "platform/win32/wide.h"

namespace kova {

namespace {

constexpr DWORD kEventNumber = 1;
constexpr DWORD kStopMs = 10000;
constexpr DWORD kPollMs = 10;
constexpr UINT kEndedByStop = 0;

/// The service that this process is.
struct Service {
  const ServiceProgram& program;
  SERVICE_STATUS_HANDLE status = nullptr;
  Handle wants_stop{};
  Handle job{};
  Handle process{};
};

/// The manager calls the service's main function without a word of whose it is.
constinit Service* own_service = nullptr;

void report(const Service& service, DWORD state, DWORD error = NO_ERROR) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted =
      state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  status.dwWin32ExitCode = error;
  const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  status.dwWaitHint = pending ? kStopMs : 0;
  ::SetServiceStatus(service.status, &status);
}

DWORD WINAPI on_control(DWORD control, DWORD, void*, void* context) {
  const auto& service = *static_cast<Service*>(context);
  if (control == SERVICE_CONTROL_INTERROGATE) return NO_ERROR;
  if (control != SERVICE_CONTROL_STOP && control != SERVICE_CONTROL_SHUTDOWN) {
    return ERROR_CALL_NOT_IMPLEMENTED;
  }
  report(service, SERVICE_STOP_PENDING);
  ::SetEvent(service.wants_stop.get());
  return NO_ERROR;
}

bool make_command_line(const ServiceProgram& program, wchar_t (&wide)[kWideCapacity]) {
  char text[kWideCapacity];
  TextOut out(text);
  return out.format("\"%s\" \"%s\" \"%s\"", program.path, program.arguments[0],
                    program.arguments[1]) &&
         to_wide(text, wide);
}

/// However this process ends, the job's processes end with it: it holds the only handle.
bool make_job(Handle& job) {
  *job.out() = ::CreateJobObjectW(nullptr, nullptr);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  return job.get() != nullptr &&
         ::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits,
                                   sizeof limits) != 0;
}

bool start_program(Service& service) {
  wchar_t path[kWideCapacity];
  wchar_t command_line[kWideCapacity];
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made{};
  // A console that nobody sees, which the program's own children share with it.
  if (!to_wide(service.program.path, path) || !make_command_line(service.program, command_line) ||
      !make_job(service.job) ||
      ::CreateProcessW(path, command_line, nullptr, nullptr, FALSE,
                       CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                       &made) == 0) {
    return false;
  }
  *service.process.out() = made.hProcess;
  const Handle thread(made.hThread);
  if (::AssignProcessToJobObject(service.job.get(), made.hProcess) != 0 &&
      ::ResumeThread(thread.get()) != DWORD(-1)) {
    return true;
  }
  ::TerminateProcess(made.hProcess, 1);
  return false;
}

/// Ends every process of the job and waits until none is left.
void end_program(const Service& service) {
  ::TerminateJobObject(service.job.get(), kEndedByStop);
  const std::uint64_t deadline = tick_ms() + kStopMs;
  JOBOBJECT_BASIC_ACCOUNTING_INFORMATION counts{};
  while (::QueryInformationJobObject(service.job.get(), JobObjectBasicAccountingInformation,
                                     &counts, sizeof counts, nullptr) != 0 &&
         counts.ActiveProcesses > 0 && tick_ms() < deadline) {
    ::Sleep(kPollMs);
  }
}

/// After this report the service manager starts the service again.
void fail(const Service& service, const char* text) {
  log_event(service.program.name, EventKind::kError, text);
  report(service, SERVICE_STOPPED, ERROR_PROCESS_ABORTED);
}

void serve(Service& service) {
  const ServiceProgram& program = service.program;
  report(service, SERVICE_START_PENDING);
  *service.wants_stop.out() = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (service.wants_stop.get() == nullptr || !start_program(service)) {
    return fail(service, program.not_started);
  }
  log_event(program.name, EventKind::kInformation, program.started);
  report(service, SERVICE_RUNNING);
  const HANDLE events[] = {service.wants_stop.get(), service.process.get()};
  const bool stops = ::WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0;
  end_program(service);
  if (!stops) return fail(service, program.ended);
  log_event(program.name, EventKind::kInformation, program.stopped);
  report(service, SERVICE_STOPPED);
}

void WINAPI service_main(DWORD, wchar_t**) {
  wchar_t name[kWideCapacity];
  if (!to_wide(own_service->program.name, name)) return;
  own_service->status = ::RegisterServiceCtrlHandlerExW(name, on_control, own_service);
  if (own_service->status != nullptr) serve(*own_service);
}

}  // namespace

void log_event(const char* source, EventKind kind, const char* text) {
  wchar_t wide_source[kWideCapacity];
  wchar_t wide_text[kWideCapacity];
  if (!to_wide(source, wide_source) || !to_wide(text, wide_text)) return;
  const HANDLE log = ::RegisterEventSourceW(nullptr, wide_source);
  if (log == nullptr) return;
  const wchar_t* texts[] = {wide_text};
  ::ReportEventW(log,
                 static_cast<WORD>(kind == EventKind::kError ? EVENTLOG_ERROR_TYPE
                                                             : EVENTLOG_INFORMATION_TYPE),
                 0, kEventNumber, nullptr, 1, 0, texts, nullptr);
  ::DeregisterEventSource(log);
}

bool run_service(const ServiceProgram& program) {
  Service service{.program = program};
  own_service = &service;
  wchar_t name[kWideCapacity];
  if (!to_wide(program.name, name)) return false;
  const SERVICE_TABLE_ENTRYW table[] = {{name, service_main}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(table) != 0;
}

}  // namespace kova

#include "platform/machine_state.h"

#include <windows.h>

#include <winsvc.h>

namespace kova {

// The system's time service does the work; a service that does not run leaves the clock alone.
ClockState clock_state() {
  const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (manager == nullptr) return ClockState::kUnknown;
  ClockState state = ClockState::kUnknown;
  const SC_HANDLE service = ::OpenServiceW(manager, L"W32Time", SERVICE_QUERY_STATUS);
  SERVICE_STATUS status{};
  if (service != nullptr) {
    if (::QueryServiceStatus(service, &status) != 0) {
      state = status.dwCurrentState == SERVICE_RUNNING ? ClockState::kSynchronised
                                                       : ClockState::kNotSynchronised;
    }
    ::CloseServiceHandle(service);
  }
  ::CloseServiceHandle(manager);
  return state;
}

ProcessLimits process_limits() {
  return {.descriptors = kNoLimit, .processes = kNoLimit};
}

}  // namespace kova

#include "platform/service_control.h"

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>
#include <wincrypt.h>

#include <cwchar>
#include <cwctype>

#include "platform/clock.h"
#include "platform/win32/wide.h"

namespace kova {

const bool kHasServices = true;

namespace {

constexpr DWORD kPollMs = 50;
constexpr DWORD kForgetFailuresSeconds = 86400;
constexpr DWORD kSha1Size = 20;
constexpr std::size_t kTextCapacity = 512;
/// Holds a message that is nothing but the event's own text, for numbers from 1 to 1000.
constexpr wchar_t kPlainMessages[] = L"%SystemRoot%\\System32\\EventCreate.exe";
constexpr wchar_t kEventSources[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

class ServiceHandle {
 public:
  explicit ServiceHandle(SC_HANDLE handle) : handle_(handle) {}
  ~ServiceHandle() {
    if (handle_ != nullptr) ::CloseServiceHandle(handle_);
  }
  ServiceHandle(const ServiceHandle&) = delete;
  ServiceHandle& operator=(const ServiceHandle&) = delete;

  [[nodiscard]] SC_HANDLE get() const { return handle_; }

 private:
  SC_HANDLE handle_;
};

ServiceOutcome outcome_of(DWORD error) {
  switch (error) {
    case ERROR_ACCESS_DENIED:
      return ServiceOutcome::kDenied;
    case ERROR_SERVICE_EXISTS:
    case ERROR_DUPLICATE_SERVICE_NAME:
      return ServiceOutcome::kExists;
    case ERROR_SERVICE_DOES_NOT_EXIST:
      return ServiceOutcome::kMissing;
    case ERROR_SERVICE_ALREADY_RUNNING:
      return ServiceOutcome::kRunning;
    case ERROR_SERVICE_NOT_ACTIVE:
      return ServiceOutcome::kNotRunning;
    case ERROR_SERVICE_REQUEST_TIMEOUT:
      return ServiceOutcome::kRefused;
    case ERROR_SERVICE_MARKED_FOR_DELETE:
      return ServiceOutcome::kMarkedDeleted;
    default:
      return ServiceOutcome::kFailed;
  }
}

ServiceResult last_result() {
  const DWORD error = ::GetLastError();
  return {.outcome = outcome_of(error), .error = error};
}

bool restart_after_failures(SC_HANDLE service, const ServiceDefinition& definition) {
  SC_ACTION actions[3];
  for (std::size_t i = 0; i < 3; ++i) {
    actions[i] = {.Type = SC_ACTION_RESTART, .Delay = definition.restart_ms[i]};
  }
  SERVICE_FAILURE_ACTIONSW failures{};
  failures.dwResetPeriod = kForgetFailuresSeconds;
  failures.cActions = 3;
  failures.lpsaActions = actions;
  // A process that reports its failure properly has failed as well. A manager that does not know
  // this level restarts those alone that end without a report.
  SERVICE_FAILURE_ACTIONS_FLAG always{.fFailureActionsOnNonCrashFailures = TRUE};
  return ::ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failures) != 0 &&
         (::ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &always) != 0 ||
          ::GetLastError() == ERROR_INVALID_LEVEL);
}

bool describe(SC_HANDLE service, const char* text) {
  wchar_t wide[kWideCapacity];
  SERVICE_DESCRIPTIONW description{.lpDescription = wide};
  return to_wide(text, wide) &&
         ::ChangeServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, &description) != 0;
}

bool source_key(const char* name, wchar_t (&key)[kTextCapacity]) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(name, wide) || std::wcslen(kEventSources) + std::wcslen(wide) + 1 > kTextCapacity) {
    return false;
  }
  std::wcscpy(key, kEventSources);
  std::wcscat(key, wide);
  return true;
}

bool add_event_source(const char* name) {
  wchar_t path[kTextCapacity];
  HKEY key = nullptr;
  if (!source_key(name, path) ||
      ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                        nullptr) != ERROR_SUCCESS) {
    return false;
  }
  const DWORD kinds = EVENTLOG_ERROR_TYPE | EVENTLOG_INFORMATION_TYPE;
  const bool set =
      ::RegSetValueExW(key, L"EventMessageFile", 0, REG_EXPAND_SZ,
                       reinterpret_cast<const BYTE*>(kPlainMessages),
                       sizeof kPlainMessages) == ERROR_SUCCESS &&
      ::RegSetValueExW(key, L"TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&kinds),
                       sizeof kinds) == ERROR_SUCCESS;
  ::RegCloseKey(key);
  return set;
}

void remove_event_source(const char* name) {
  wchar_t path[kTextCapacity];
  if (source_key(name, path)) static_cast<void>(::RegDeleteKeyW(HKEY_LOCAL_MACHINE, path));
}

/// Waits while the service is on its way; its state then, or the pending one when the time is over.
/// 0 when it cannot be asked.
DWORD settled_state(SC_HANDLE service, DWORD pending, std::uint32_t timeout_ms) {
  const std::uint64_t deadline = tick_ms() + timeout_ms;
  SERVICE_STATUS status{};
  for (;;) {
    if (::QueryServiceStatus(service, &status) == 0) return 0;
    if (status.dwCurrentState != pending || tick_ms() >= deadline) return status.dwCurrentState;
    ::Sleep(kPollMs);
  }
}

bool sha1(const wchar_t* text, BYTE (&digest)[kSha1Size]) {
  HCRYPTPROV provider = 0;
  HCRYPTHASH hash = 0;
  DWORD size = kSha1Size;
  if (::CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT) ==
      0) {
    return false;
  }
  const bool done =
      ::CryptCreateHash(provider, CALG_SHA1, 0, 0, &hash) != 0 &&
      ::CryptHashData(hash, reinterpret_cast<const BYTE*>(text),
                      static_cast<DWORD>(std::wcslen(text) * sizeof(wchar_t)), 0) != 0 &&
      ::CryptGetHashParam(hash, HP_HASHVAL, digest, &size, 0) != 0;
  if (hash != 0) ::CryptDestroyHash(hash);
  ::CryptReleaseContext(provider, 0);
  return done;
}

}  // namespace

ServiceResult install_service(const ServiceDefinition& definition) {
  wchar_t name[kWideCapacity];
  wchar_t title[kWideCapacity];
  wchar_t command_line[kWideCapacity];
  wchar_t account[kWideCapacity];
  char account_text[kTextCapacity];
  TextOut account_out(account_text);
  if (!account_out.format("NT SERVICE\\%s", definition.name) || !to_wide(account_text, account) ||
      !to_wide(definition.name, name) || !to_wide(definition.title, title) ||
      !to_wide(definition.command_line, command_line)) {
    return {ServiceOutcome::kFailed};
  }
  const ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
  if (manager.get() == nullptr) return last_result();
  const ServiceHandle service(
      ::CreateServiceW(manager.get(), name, title, SERVICE_CHANGE_CONFIG | SERVICE_START | DELETE,
                       SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                       command_line, nullptr, nullptr, L"Tcpip\0", account, nullptr));
  if (service.get() == nullptr) return last_result();
  if (describe(service.get(), definition.description) &&
      restart_after_failures(service.get(), definition) && add_event_source(definition.name)) {
    return {ServiceOutcome::kDone};
  }
  const ServiceResult result = last_result();
  ::DeleteService(service.get());
  remove_event_source(definition.name);
  return result;
}

ServiceResult start_service(const char* name, std::uint32_t timeout_ms) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(name, wide)) return {ServiceOutcome::kFailed};
  const ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (manager.get() == nullptr) return last_result();
  const ServiceHandle service(
      ::OpenServiceW(manager.get(), wide, SERVICE_START | SERVICE_QUERY_STATUS));
  if (service.get() == nullptr || ::StartServiceW(service.get(), 0, nullptr) == 0) {
    return last_result();
  }
  switch (settled_state(service.get(), SERVICE_START_PENDING, timeout_ms)) {
    case SERVICE_RUNNING:
      return {ServiceOutcome::kDone};
    case SERVICE_START_PENDING:
      return {ServiceOutcome::kTimedOut};
    default:
      return {ServiceOutcome::kRefused};
  }
}

ServiceResult stop_service(const char* name, std::uint32_t timeout_ms) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(name, wide)) return {ServiceOutcome::kFailed};
  const ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (manager.get() == nullptr) return last_result();
  const ServiceHandle service(
      ::OpenServiceW(manager.get(), wide, SERVICE_STOP | SERVICE_QUERY_STATUS));
  SERVICE_STATUS status{};
  if (service.get() == nullptr ||
      ::ControlService(service.get(), SERVICE_CONTROL_STOP, &status) == 0) {
    return last_result();
  }
  switch (settled_state(service.get(), SERVICE_STOP_PENDING, timeout_ms)) {
    case SERVICE_STOPPED:
      return {ServiceOutcome::kDone};
    case SERVICE_STOP_PENDING:
      return {ServiceOutcome::kTimedOut};
    default:
      return {ServiceOutcome::kFailed};
  }
}

ServiceResult remove_service(const char* name) {
  wchar_t wide[kWideCapacity];
  if (!to_wide(name, wide)) return {ServiceOutcome::kFailed};
  const ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (manager.get() == nullptr) return last_result();
  const ServiceHandle service(::OpenServiceW(manager.get(), wide, DELETE | SERVICE_QUERY_STATUS));
  SERVICE_STATUS status{};
  if (service.get() == nullptr || ::QueryServiceStatus(service.get(), &status) == 0) {
    return last_result();
  }
  if (status.dwCurrentState != SERVICE_STOPPED) return {ServiceOutcome::kRunning};
  if (::DeleteService(service.get()) == 0) return last_result();
  remove_event_source(name);
  return {ServiceOutcome::kDone};
}

bool service_identifier(const char* name, TextOut out) {
  wchar_t wide[kWideCapacity];
  BYTE digest[kSha1Size];
  if (!to_wide(name, wide)) return false;
  for (wchar_t* c = wide; *c != L'\0'; ++c) *c = static_cast<wchar_t>(std::towupper(*c));
  if (!sha1(wide, digest) || !out.append("S-1-5-80")) return false;
  for (std::size_t i = 0; i < kSha1Size; i += 4) {
    const unsigned long part = digest[i] | digest[i + 1] << 8 | digest[i + 2] << 16 |
                               static_cast<unsigned long>(digest[i + 3]) << 24;
    if (!out.format("-%lu", part)) return false;
  }
  return true;
}

bool give_file_to_service(const char* path, const char* name) {
  wchar_t wide[kWideCapacity];
  wchar_t wide_list[kWideCapacity];
  char identifier[kTextCapacity];
  char list_text[kTextCapacity];
  TextOut identifier_out(identifier);
  TextOut list_out(list_text);
  if (!to_wide(path, wide) || !service_identifier(name, identifier_out) ||
      !list_out.format("D:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FR;;;%s)", identifier) ||
      !to_wide(list_text, wide_list)) {
    return false;
  }
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (::ConvertStringSecurityDescriptorToSecurityDescriptorW(wide_list, SDDL_REVISION_1,
                                                             &descriptor, nullptr) == 0) {
    return false;
  }
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL list = nullptr;
  const bool set =
      ::GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted) != 0 &&
      ::SetNamedSecurityInfoW(wide, SE_FILE_OBJECT,
                              DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                              nullptr, nullptr, list, nullptr) == ERROR_SUCCESS;
  ::LocalFree(descriptor);
  return set;
}

}  // namespace kova

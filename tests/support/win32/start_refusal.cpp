#include "support/win32/start_refusal.h"

#include <windows.h>

#include <atomic>

// The names that the linker's --wrap gives to the pointers by which a program calls the system's
// libraries, and to their stand-ins.
extern "C" {
extern const decltype(&CreateProcessW) __real___imp_CreateProcessW;
extern const decltype(&CreateProcessW) __wrap___imp_CreateProcessW;
extern const decltype(&IsProcessInJob) __real___imp_IsProcessInJob;
extern const decltype(&IsProcessInJob) __wrap___imp_IsProcessInJob;
}

namespace kova::testing {
namespace {

std::atomic<std::uint32_t> refused_with{ERROR_SUCCESS};
std::atomic<bool> is_in_job{false};
std::atomic<std::uint32_t> last_flags{0};

BOOL WINAPI create_process(LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES process,
                           LPSECURITY_ATTRIBUTES thread, BOOL inherits, DWORD flags,
                           LPVOID environment, LPCWSTR folder, LPSTARTUPINFOW startup,
                           LPPROCESS_INFORMATION created) {
  last_flags = flags;
  if (refused_with == ERROR_SUCCESS) {
    return __real___imp_CreateProcessW(program, line, process, thread, inherits, flags, environment,
                                       folder, startup, created);
  }
  SetLastError(refused_with);
  return FALSE;
}

BOOL WINAPI is_process_in_job(HANDLE process, HANDLE job, PBOOL result) {
  if (refused_with == ERROR_SUCCESS) return __real___imp_IsProcessInJob(process, job, result);
  *result = is_in_job ? TRUE : FALSE;
  return TRUE;
}

}  // namespace

StartRefusal::StartRefusal(std::uint32_t error, bool in_job) {
  is_in_job = in_job;
  refused_with = error;
}

StartRefusal::~StartRefusal() {
  refused_with = ERROR_SUCCESS;
}

std::uint32_t last_start_flags() {
  return last_flags;
}

}  // namespace kova::testing

const decltype(&CreateProcessW) __wrap___imp_CreateProcessW = kova::testing::create_process;
const decltype(&IsProcessInJob) __wrap___imp_IsProcessInJob = kova::testing::is_process_in_job;

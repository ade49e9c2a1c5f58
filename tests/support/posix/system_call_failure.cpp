#include "support/posix/system_call_failure.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

// The names that the linker's --wrap gives to the functions and to their stand-ins.
extern "C" {
int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags);
int __real_dup2(int from, int to);
int __wrap_dup2(int from, int to);
int __real_fcntl(int descriptor, int command, ...);
int __wrap_fcntl(int descriptor, int command, ...);
int __real_flock(int descriptor, int operation);
int __wrap_flock(int descriptor, int operation);
long __real_syscall(long number, long a, long b, long c, long d, long e, long f);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f);
int __real_pipe2(int* ends, int flags);
int __wrap_pipe2(int* ends, int flags);
int __real_poll(pollfd* entries, nfds_t count, int timeout);
int __wrap_poll(pollfd* entries, nfds_t count, int timeout);
int __real_prctl(int option, unsigned long argument);
int __wrap_prctl(int option, unsigned long argument);
}

namespace kova::testing {
namespace {

constexpr int kNone = -1;

std::atomic<int> failing_call{kNone};
std::atomic<int> passing{0};
std::atomic<int> failing{0};
std::atomic<int> failures{0};
std::atomic<int> error_number{0};

bool fails(SystemCall call) {
  if (failing_call != static_cast<int>(call)) return false;
  if (passing > 0) {
    --passing;
    return false;
  }
  if (failing <= 0) return false;
  --failing;
  ++failures;
  errno = error_number;
  return true;
}

}  // namespace

SystemCallFailure::SystemCallFailure(SystemCall call, int error, int first, int count) {
  passing = first - 1;
  failing = count;
  failures = 0;
  error_number = error;
  failing_call = static_cast<int>(call);
}

SystemCallFailure::~SystemCallFailure() {
  failing_call = kNone;
}

int SystemCallFailure::failed() {
  return failures;
}

}  // namespace kova::testing

using kova::testing::fails;
using kova::testing::SystemCall;

int __wrap_close_range(unsigned first, unsigned last, int flags) {
  return fails(SystemCall::kCloseRange) ? -1 : __real_close_range(first, last, flags);
}

int __wrap_dup2(int from, int to) {
  return fails(SystemCall::kDup2) ? -1 : __real_dup2(from, to);
}

// Whatever the argument is, it goes on as it came, as in the C library.
int __wrap_fcntl(int descriptor, int command, ...) {
  std::va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command == F_SETPIPE_SZ && fails(SystemCall::kSetPipeSize)) return -1;
  return __real_fcntl(descriptor, command, argument);
}

int __wrap_flock(int descriptor, int operation) {
  return fails(SystemCall::kFlock) ? -1 : __real_flock(descriptor, operation);
}

long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  if (number == SYS_pidfd_open && fails(SystemCall::kPidfdOpen)) return -1;
  return __real_syscall(number, a, b, c, d, e, f);
}

int __wrap_pipe2(int* ends, int flags) {
  return fails(SystemCall::kPipe2) ? -1 : __real_pipe2(ends, flags);
}

int __wrap_poll(pollfd* entries, nfds_t count, int timeout) {
  return fails(SystemCall::kPoll) ? -1 : __real_poll(entries, count, timeout);
}

int __wrap_prctl(int option, unsigned long argument) {
  return fails(SystemCall::kPrctl) ? -1 : __real_prctl(option, argument);
}

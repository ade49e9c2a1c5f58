#include "support/slow_end.h"

#include <sys/wait.h>

#include <atomic>
#include <ctime>

// The names that the linker's --wrap gives to the functions and to their stand-ins.
extern "C" {
int __real_waitid(idtype_t kind, id_t id, siginfo_t* info, int options);
int __wrap_waitid(idtype_t kind, id_t id, siginfo_t* info, int options);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now);
}

namespace kova::testing {
namespace {

/// By how much a look at a child moves the monotonic clock on.
constexpr std::uint64_t kStepMs = 1000;

std::atomic<std::uint64_t> step{0};
std::atomic<std::uint64_t> moved_ms{0};

}  // namespace

SlowEnd::SlowEnd() {
  moved_ms = 0;
  step = kStepMs;
}

SlowEnd::~SlowEnd() {
  step = 0;
  moved_ms = 0;
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

std::uint64_t SlowEnd::waited_ms() {
  return moved_ms;
}

}  // namespace kova::testing

int __wrap_waitid(idtype_t kind, id_t id, siginfo_t* info, int options) {
  using namespace kova::testing;
  if (step == 0 || (options & WNOHANG) == 0) return __real_waitid(kind, id, info, options);
  moved_ms += step;
  info->si_pid = 0;
  return 0;
}

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const int result = __real_clock_gettime(clock, now);
  if (clock == CLOCK_MONOTONIC) now->tv_sec += static_cast<time_t>(kova::testing::moved_ms / 1000);
  return result;
}

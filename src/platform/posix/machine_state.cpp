#include "platform/machine_state.h"

#include <sys/resource.h>
#include <sys/timex.h>

namespace kova {

namespace {

std::uint64_t limit_of(decltype(RLIMIT_NOFILE) what) {
  rlimit limit{};
  if (::getrlimit(what, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kNoLimit;
  return limit.rlim_cur;
}

}  // namespace

ClockState clock_state() {
  timex state{};  // no mode bit: nothing is set
  const int result = ::adjtimex(&state);
  if (result < 0) return ClockState::kUnknown;
  const bool in_step = result != TIME_ERROR && (state.status & STA_UNSYNC) == 0;
  return in_step ? ClockState::kSynchronised : ClockState::kNotSynchronised;
}

ProcessLimits process_limits() {
  return {.descriptors = limit_of(RLIMIT_NOFILE), .processes = limit_of(RLIMIT_NPROC)};
}

}  // namespace kova

// The thread sanitizer knows pthread_timedjoin_np but not pthread_clockjoin_np, and takes a thread
// that was joined by the latter for one that still runs. Linked into its builds alone, in place of
// pthread_clockjoin_np.
#include <pthread.h>

#include <ctime>

extern "C" int __wrap_pthread_clockjoin_np(pthread_t thread, void** result, clockid_t clock,
                                           const timespec* until);

namespace {

constexpr long kSecond = 1000000000;

timespec moved_to_real_time(clockid_t clock, const timespec& until) {
  timespec now{};
  timespec real{};
  clock_gettime(clock, &now);
  clock_gettime(CLOCK_REALTIME, &real);
  real.tv_sec += until.tv_sec - now.tv_sec;
  real.tv_nsec += until.tv_nsec - now.tv_nsec;
  for (; real.tv_nsec < 0; --real.tv_sec) real.tv_nsec += kSecond;
  for (; real.tv_nsec >= kSecond; ++real.tv_sec) real.tv_nsec -= kSecond;
  return real;
}

}  // namespace

int __wrap_pthread_clockjoin_np(pthread_t thread, void** result, clockid_t clock,
                                const timespec* until) {
  const timespec real = moved_to_real_time(clock, *until);
  return pthread_timedjoin_np(thread, result, &real);
}

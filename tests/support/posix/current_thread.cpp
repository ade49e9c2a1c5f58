#include "support/current_thread.h"

#include <pthread.h>

#include <ctime>

namespace kova::testing {

std::uintptr_t current_thread() {
  return ::pthread_self();
}

std::uint64_t thread_processor_us() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<std::uint64_t>(used.tv_sec) * 1000000 +
         static_cast<std::uint64_t>(used.tv_nsec) / 1000;
}

}  // namespace kova::testing

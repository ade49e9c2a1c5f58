// The product's threads with some functions under other names (see renamed.h).
#define start real_start
#define start_detached real_start_detached
#define wait_within real_wait_within

#include KOVA_THREAD_SOURCE

#undef start
#undef start_detached
#undef wait_within
#include "support/renamed/renamed.h"

namespace kova::testing {

bool real_thread_start(Thread& thread, Thread::Entry entry, void* argument) {
  return thread.real_start(entry, argument);
}

void real_wait_within(Condition& condition, Mutex& mutex, std::uint32_t milliseconds) {
  condition.real_wait_within(mutex, milliseconds);
}

}  // namespace kova::testing

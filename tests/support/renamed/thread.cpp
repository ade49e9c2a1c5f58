// The product's threads with some functions under other names (see renamed.h).
#define start real_start
#define start_detached real_start_detached
#define join_within real_join_within

#include KOVA_THREAD_SOURCE

#undef start
#undef start_detached
#undef join_within
#include "support/renamed/renamed.h"

namespace kova::testing {

bool real_thread_start(Thread& thread, Thread::Entry entry, void* argument) {
  return thread.real_start(entry, argument);
}

bool real_thread_join_within(Thread& thread, std::uint32_t milliseconds) {
  return thread.real_join_within(milliseconds);
}

}  // namespace kova::testing

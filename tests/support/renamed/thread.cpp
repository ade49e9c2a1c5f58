// The product's threads with the functions that start them under other names (see renamed.h).
#define start real_start
#define start_detached real_start_detached

#include KOVA_THREAD_SOURCE

#undef start
#undef start_detached
#include "support/renamed/renamed.h"

namespace kova::testing {

bool real_thread_start(Thread& thread, Thread::Entry entry, void* argument) {
  return thread.real_start(entry, argument);
}

}  // namespace kova::testing

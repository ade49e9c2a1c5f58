#include "support/thread_failure.h"

#include <atomic>

#include "platform/thread.h"

namespace kova::testing {

// The names that the linker's --wrap gives to a wrapped function and to its stand-in.
bool real_start(Thread* thread, Thread::Entry entry,
                void* argument) __asm__("__real__ZN4kova6Thread5startEPFPvS1_ES1_");
bool start(Thread* thread, Thread::Entry entry,
           void* argument) __asm__("__wrap__ZN4kova6Thread5startEPFPvS1_ES1_");
bool real_start_detached(Thread::Entry entry,
                         void* argument) __asm__("__real__ZN4kova14start_detachedEPFPvS0_ES0_");
bool start_detached(Thread::Entry entry,
                    void* argument) __asm__("__wrap__ZN4kova14start_detachedEPFPvS0_ES0_");

namespace {

std::atomic<bool> failing{false};

}  // namespace

bool start(Thread* thread, Thread::Entry entry, void* argument) {
  return !failing && real_start(thread, entry, argument);
}

bool start_detached(Thread::Entry entry, void* argument) {
  return !failing && real_start_detached(entry, argument);
}

ThreadFailure::ThreadFailure() {
  failing = true;
}

ThreadFailure::~ThreadFailure() {
  failing = false;
}

}  // namespace kova::testing

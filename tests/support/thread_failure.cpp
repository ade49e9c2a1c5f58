#include "support/thread_failure.h"

#include <atomic>

#include "support/renamed/renamed.h"

namespace kova {
namespace {

std::atomic<bool> failing{false};

}  // namespace

bool Thread::start(Entry entry, void* argument) {
  return !failing && testing::real_thread_start(*this, entry, argument);
}

bool start_detached(Thread::Entry entry, void* argument) {
  return !failing && real_start_detached(entry, argument);
}

namespace testing {

ThreadFailure::ThreadFailure() {
  failing = true;
}

ThreadFailure::~ThreadFailure() {
  failing = false;
}

}  // namespace testing
}  // namespace kova

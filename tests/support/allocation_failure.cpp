#include "support/allocation_failure.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "support/current_thread.h"

// The names that the linker's --wrap gives to a wrapped function and to its stand-in.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);
}

namespace kova::testing {
namespace {

// Process-wide counters of one thread: thread-local ones would allocate on first use on Windows.
const std::uintptr_t kTestsThread = current_thread();
std::atomic<std::uintptr_t> failing_thread{0};
std::atomic<int> countdown{0};
std::atomic<bool> refused{false};
std::atomic<unsigned long> asked{0};

bool refuse_this_one() {
  const std::uintptr_t thread = current_thread();
  if (thread == kTestsThread) asked.fetch_add(1, std::memory_order_relaxed);
  if (thread != failing_thread.load(std::memory_order_relaxed)) return false;
  if (countdown.load(std::memory_order_relaxed) == 0) return false;
  if (countdown.fetch_sub(1, std::memory_order_relaxed) != 1) return false;
  refused.store(true, std::memory_order_relaxed);
  return true;
}

}  // namespace

AllocationFailure::AllocationFailure(int nth) : AllocationFailure(nth, kTestsThread) {}

AllocationFailure::AllocationFailure(int nth, std::uintptr_t thread) {
  refused.store(false, std::memory_order_relaxed);
  failing_thread.store(thread, std::memory_order_relaxed);
  countdown.store(nth, std::memory_order_relaxed);
}

AllocationFailure::~AllocationFailure() {
  countdown.store(0, std::memory_order_relaxed);
}

bool AllocationFailure::happened() {
  return refused.load(std::memory_order_relaxed);
}

unsigned long allocation_count() {
  return asked.load(std::memory_order_relaxed);
}

}  // namespace kova::testing

void* __wrap_malloc(std::size_t size) {
  return kova::testing::refuse_this_one() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return kova::testing::refuse_this_one() ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* block, std::size_t size) {
  return kova::testing::refuse_this_one() ? nullptr : __real_realloc(block, size);
}

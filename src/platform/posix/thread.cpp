#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>

#include <ctime>

namespace kova {

static_assert(sizeof(pthread_t) == sizeof(std::uintptr_t));

bool Thread::start(Entry entry, void* argument) {
  pthread_t thread{};
  joinable_ = ::pthread_create(&thread, nullptr, entry, argument) == 0;
  handle_ = thread;
  return joinable_;
}

bool Thread::join_within(std::uint32_t milliseconds) {
  if (!joinable_) return true;
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += milliseconds / 1000;
  until.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
  if (until.tv_nsec >= 1000000000) {
    until.tv_nsec -= 1000000000;
    ++until.tv_sec;
  }
  joinable_ = ::pthread_clockjoin_np(handle_, nullptr, CLOCK_MONOTONIC, &until) != 0;
  return !joinable_;
}

void Thread::join() {
  if (joinable_) ::pthread_join(handle_, nullptr);
  joinable_ = false;
}

void yield_thread() {
  ::sched_yield();
}

}  // namespace kova

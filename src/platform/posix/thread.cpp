#include "platform/thread.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>

#include <ctime>

namespace kova {

static_assert(sizeof(pthread_t) == sizeof(std::uintptr_t));

namespace {

pthread_mutex_t* mutex_of(unsigned char* state) {
  return reinterpret_cast<pthread_mutex_t*>(state);
}

pthread_cond_t* condition_of(unsigned char* state) {
  return reinterpret_cast<pthread_cond_t*>(state);
}

}  // namespace

bool Thread::start(Entry entry, void* argument) {
  pthread_t thread{};
  joinable_ = ::pthread_create(&thread, nullptr, entry, argument) == 0;
  handle_ = thread;
  return joinable_;
}

void Thread::join() {
  if (joinable_) ::pthread_join(handle_, nullptr);
  joinable_ = false;
}

bool start_detached(Thread::Entry entry, void* argument) {
  pthread_t thread{};
  return ::pthread_create(&thread, nullptr, entry, argument) == 0 && ::pthread_detach(thread) == 0;
}

void yield_thread() {
  ::sched_yield();
}

void sleep_thread(std::uint32_t milliseconds) {
  ::poll(nullptr, 0, static_cast<int>(milliseconds));
}

void Mutex::lock() {
  static_assert(sizeof(pthread_mutex_t) <= kSize);
  ::pthread_mutex_lock(mutex_of(state_));
}

void Mutex::unlock() {
  ::pthread_mutex_unlock(mutex_of(state_));
}

void Condition::wait(Mutex& mutex) {
  static_assert(sizeof(pthread_cond_t) <= kSize);
  ::pthread_cond_wait(condition_of(state_), mutex_of(mutex.state_));
}

void Condition::wait_within(Mutex& mutex, std::uint32_t milliseconds) {
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += milliseconds / 1000;
  until.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
  if (until.tv_nsec >= 1000000000) {
    until.tv_nsec -= 1000000000;
    ++until.tv_sec;
  }
  ::pthread_cond_clockwait(condition_of(state_), mutex_of(mutex.state_), CLOCK_MONOTONIC, &until);
}

void Condition::notify_all() {
  ::pthread_cond_broadcast(condition_of(state_));
}

}  // namespace kova

#include "platform/thread.h"

#include <windows.h>

#include <cstdlib>

namespace kova {

namespace {

struct Start {
  Thread::Entry entry;
  void* argument;
};

DWORD WINAPI run(void* parameter) {
  const Start start = *static_cast<Start*>(parameter);
  std::free(parameter);
  start.entry(start.argument);
  return 0;
}

HANDLE handle_of(std::uintptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

HANDLE create_thread(Thread::Entry entry, void* argument) {
  auto* start = static_cast<Start*>(std::malloc(sizeof(Start)));
  if (start == nullptr) return nullptr;
  *start = {.entry = entry, .argument = argument};
  const HANDLE thread = ::CreateThread(nullptr, 0, run, start, 0, nullptr);
  if (thread == nullptr) std::free(start);
  return thread;
}

PSRWLOCK lock_of(unsigned char* state) {
  return reinterpret_cast<PSRWLOCK>(state);
}

PCONDITION_VARIABLE condition_of(unsigned char* state) {
  return reinterpret_cast<PCONDITION_VARIABLE>(state);
}

}  // namespace

bool Thread::start(Entry entry, void* argument) {
  const HANDLE thread = create_thread(entry, argument);
  handle_ = reinterpret_cast<std::uintptr_t>(thread);
  joinable_ = thread != nullptr;
  return joinable_;
}

void Thread::join() {
  if (!joinable_) return;
  ::WaitForSingleObject(handle_of(handle_), INFINITE);
  ::CloseHandle(handle_of(handle_));
  joinable_ = false;
}

bool start_detached(Thread::Entry entry, void* argument) {
  const HANDLE thread = create_thread(entry, argument);
  return thread != nullptr && ::CloseHandle(thread) != 0;
}

void yield_thread() {
  ::Sleep(0);
}

void sleep_thread(std::uint32_t milliseconds) {
  ::Sleep(milliseconds);
}

void Mutex::lock() {
  static_assert(sizeof(SRWLOCK) <= kSize);
  ::AcquireSRWLockExclusive(lock_of(state_));
}

void Mutex::unlock() {
  ::ReleaseSRWLockExclusive(lock_of(state_));
}

void Condition::wait(Mutex& mutex) {
  static_assert(sizeof(CONDITION_VARIABLE) <= kSize);
  wait_within(mutex, INFINITE);
}

void Condition::wait_within(Mutex& mutex, std::uint32_t milliseconds) {
  ::SleepConditionVariableSRW(condition_of(state_), lock_of(mutex.state_), milliseconds, 0);
}

void Condition::notify_all() {
  ::WakeAllConditionVariable(condition_of(state_));
}

}  // namespace kova

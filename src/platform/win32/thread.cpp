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

}  // namespace

bool Thread::start(Entry entry, void* argument) {
  auto* start = static_cast<Start*>(std::malloc(sizeof(Start)));
  if (start == nullptr) return false;
  *start = {.entry = entry, .argument = argument};
  const HANDLE thread = ::CreateThread(nullptr, 0, run, start, 0, nullptr);
  if (thread == nullptr) std::free(start);
  handle_ = reinterpret_cast<std::uintptr_t>(thread);
  joinable_ = thread != nullptr;
  return joinable_;
}

bool Thread::join_within(std::uint32_t milliseconds) {
  if (!joinable_) return true;
  if (::WaitForSingleObject(handle_of(handle_), milliseconds) == WAIT_TIMEOUT) return false;
  ::CloseHandle(handle_of(handle_));
  joinable_ = false;
  return true;
}

void Thread::join() {
  static_cast<void>(join_within(INFINITE));
}

void yield_thread() {
  ::Sleep(0);
}

}  // namespace kova

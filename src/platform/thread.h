// Threads and the short lock that yields.
#pragma once

#include <atomic>
#include <cstdint>

namespace kova {

/// One thread of this process; the object is used by the thread that starts it.
class Thread {
 public:
  using Entry = void* (*)(void* argument);

  Thread() = default;
  ~Thread() { join(); }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  /// Runs `entry` on a new thread. Needs an object whose last thread was joined.
  [[nodiscard]] bool start(Entry entry, void* argument);
  /// Whether a thread was started and not yet joined.
  [[nodiscard]] bool joinable() const { return joinable_; }
  /// Waits at most so long for the thread to end and joins it then; true when none is left.
  [[nodiscard]] bool join_within(std::uint32_t milliseconds);
  void join();

 private:
  std::uintptr_t handle_ = 0;
  bool joinable_ = false;
};

/// Gives the processor to another thread.
void yield_thread();

/// A lock for moments: who finds it held yields and tries again. Not re-entrant.
class SpinLock {
 public:
  void lock() {
    while (held_.exchange(true, std::memory_order_acquire)) yield_thread();
  }
  void unlock() { held_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> held_{false};
};

/// Holds a SpinLock for a scope.
class SpinGuard {
 public:
  explicit SpinGuard(SpinLock& lock) : lock_(lock) { lock_.lock(); }
  ~SpinGuard() { lock_.unlock(); }
  SpinGuard(const SpinGuard&) = delete;
  SpinGuard& operator=(const SpinGuard&) = delete;

 private:
  SpinLock& lock_;
};

}  // namespace kova

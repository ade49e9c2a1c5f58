// Threads, the lock for moments, and the lock and condition for waits.
#pragma once

#include <atomic>
#include <cstddef>
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

/// Runs `entry` on a new thread that nobody joins.
[[nodiscard]] bool start_detached(Thread::Entry entry, void* argument);

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

/// A lock that may be held for long: who finds it held sleeps. Not re-entrant.
class Mutex {
 public:
  constexpr Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock();
  void unlock();

 private:
  friend class Condition;
  static constexpr std::size_t kSize = 40;

  /// The system's lock, which starts as zeros.
  alignas(8) unsigned char state_[kSize] = {};
};

/// Holds a lock for a scope.
template <typename Lock>
class LockGuard {
 public:
  explicit LockGuard(Lock& lock) : lock_(lock) { lock_.lock(); }
  ~LockGuard() { lock_.unlock(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  Lock& lock_;
};

using SpinGuard = LockGuard<SpinLock>;
using MutexGuard = LockGuard<Mutex>;

/// Something that threads wait for under a Mutex.
class Condition {
 public:
  constexpr Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  /// Gives the held mutex up until notified, and may return without: the caller looks again.
  void wait(Mutex& mutex);
  void notify_all();

 private:
  static constexpr std::size_t kSize = 48;

  /// The system's condition variable, which starts as zeros.
  alignas(8) unsigned char state_[kSize] = {};
};

}  // namespace kova

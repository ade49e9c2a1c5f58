// Threads, the spin lock, and the mutex and condition for longer waits.
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
  /// Waits for its end, if there is one.
  void join();

 private:
  std::uintptr_t handle_ = 0;
  bool joinable_ = false;
};

/// Runs `entry` on a new thread that nobody joins.
[[nodiscard]] bool start_detached(Thread::Entry entry, void* argument);

/// Gives the processor to another thread.
void yield_thread();

/// Lets this thread sleep for at least so many milliseconds.
void sleep_thread(std::uint32_t milliseconds);

/// Pauses between the attempts of a thread that polls: yields at first, since most waits are short,
/// then sleeps of 1, 2, 4, 8, 16, 20, 20, ... milliseconds.
///
///     for (Backoff backoff; !try_it(); backoff.pause()) {
///     }
class Backoff {
 public:
  static constexpr unsigned kYields = 64;
  static constexpr std::uint32_t kPauseLimitMs = 20;

  /// The milliseconds of the next pause; 0 stands for a yield.
  [[nodiscard]] constexpr std::uint32_t next_ms() {
    if (yields_ < kYields) {
      ++yields_;
      return 0;
    }
    const std::uint32_t pause = next_ms_;
    next_ms_ = pause * 2 < kPauseLimitMs ? pause * 2 : kPauseLimitMs;
    return pause;
  }
  /// Waits for the next pause, or for as long as is left when that is shorter.
  void pause(std::uint32_t left_ms = kPauseLimitMs) {
    const std::uint32_t pause_ms = next_ms();
    if (pause_ms == 0) {
      yield_thread();
    } else {
      sleep_thread(pause_ms < left_ms ? pause_ms : left_ms);
    }
  }

 private:
  unsigned yields_ = 0;
  std::uint32_t next_ms_ = 1;
};

/// Spin lock: a waiter yields and retries, and sleeps between its attempts once the lock is held
/// for longer than a moment. Not re-entrant.
class SpinLock {
 public:
  void lock() {
    for (Backoff backoff; held_.exchange(true, std::memory_order_acquire);) backoff.pause();
  }
  void unlock() { held_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> held_{false};
};

/// A lock that may be held for long: a waiter sleeps until it is free. Not re-entrant.
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

  /// Releases the held mutex until notified. May return without a notification: the caller checks
  /// its condition again.
  void wait(Mutex& mutex);
  /// As `wait`, for at most so long.
  void wait_within(Mutex& mutex, std::uint32_t milliseconds);
  void notify_all();

 private:
  static constexpr std::size_t kSize = 48;

  /// The system's condition variable, which starts as zeros.
  alignas(8) unsigned char state_[kSize] = {};
};

}  // namespace kova

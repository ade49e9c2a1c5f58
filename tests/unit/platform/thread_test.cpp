#include "platform/thread.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>

#include "platform/clock.h"
#include "support/current_thread.h"
#include "support/shortest.h"

namespace kova {
namespace {

struct Gate {
  std::atomic<bool> entered{false};
  std::atomic<bool> open{false};
  std::atomic<bool> left{false};
};

void* pass_gate(void* argument) {
  auto& gate = *static_cast<Gate*>(argument);
  gate.entered = true;
  while (!gate.open) yield_thread();
  gate.left = true;
  return nullptr;
}

TEST(Thread, NothingToJoin) {
  Thread thread;
  EXPECT_FALSE(thread.joinable());
  thread.join();
  EXPECT_FALSE(thread.joinable());
}

TEST(Thread, TheObjectIsUsedAgain) {
  Thread thread;
  for (int round = 0; round < 20; ++round) {
    Gate gate;
    gate.open = true;
    ASSERT_TRUE(thread.start(pass_gate, &gate));
    EXPECT_TRUE(thread.joinable());
    thread.join();
    EXPECT_TRUE(gate.left);
    EXPECT_FALSE(thread.joinable());
  }
}

TEST(Thread, DestructionJoins) {
  Gate gate;
  {
    Thread thread;
    ASSERT_TRUE(thread.start(pass_gate, &gate));
    gate.open = true;
  }
  EXPECT_TRUE(gate.left);
}

TEST(Backoff, YieldsAtFirstAndThenSleepsForLongerAndLonger) {
  Backoff backoff;
  for (unsigned i = 0; i < Backoff::kYields; ++i) ASSERT_EQ(backoff.next_ms(), 0U);
  for (const std::uint32_t pause : {1U, 2U, 4U, 8U, 16U, 20U, 20U, 20U}) {
    EXPECT_EQ(backoff.next_ms(), pause);
  }
}

TEST(Backoff, PausesNoLongerThanIsLeft) {
  Backoff backoff;
  while (backoff.next_ms() < Backoff::kPauseLimitMs) {
  }
  const std::uint64_t start = tick_ms();
  for (int i = 0; i < 10; ++i) backoff.pause(0);
  const std::uint64_t short_pauses = tick_ms() - start;
  for (int i = 0; i < 10; ++i) backoff.pause();
  EXPECT_GE(tick_ms() - start - short_pauses + 20, 10U * Backoff::kPauseLimitMs);
}

struct Wait {
  SpinLock lock;
  std::atomic<bool> waiting{false};
  std::uint64_t processor_us = 0;
};

void* wait_for_lock(void* argument) {
  auto& wait = *static_cast<Wait*>(argument);
  const std::uint64_t before = testing::thread_processor_us();
  wait.waiting = true;
  { const SpinGuard guard(wait.lock); }
  wait.processor_us = testing::thread_processor_us() - before;
  return nullptr;
}

// As when the holder writes to a client that does not read.
TEST(SpinLock, AWaiterDoesNotBurnAProcessorWhileTheHolderIsBlocked) {
  constexpr std::uint32_t kHeldMs = 400;
  Wait wait;
  Thread waiter;
  {
    const SpinGuard guard(wait.lock);
    ASSERT_TRUE(waiter.start(wait_for_lock, &wait));
    while (!wait.waiting) yield_thread();
    sleep_thread(kHeldMs);
  }
  waiter.join();
  EXPECT_LT(wait.processor_us, kHeldMs * 1000U / 4);
}

struct Counter {
  SpinLock lock;
  long plain = 0;
};

void* count_up(void* argument) {
  auto& counter = *static_cast<Counter*>(argument);
  for (int i = 0; i < 20000; ++i) {
    const SpinGuard guard(counter.lock);
    ++counter.plain;
  }
  return nullptr;
}

TEST(SpinLock, OneHolderAtATime) {
  Counter counter;
  {
    std::array<Thread, 4> threads;
    for (Thread& thread : threads) ASSERT_TRUE(thread.start(count_up, &counter));
  }
  EXPECT_EQ(counter.plain, 80000);
}

TEST(Thread, ADetachedOneRuns) {
  Gate gate;
  ASSERT_TRUE(start_detached(pass_gate, &gate));
  while (!gate.entered) yield_thread();
  gate.open = true;
  while (!gate.left) yield_thread();
}

struct WaitedCounter {
  Mutex mutex;
  Condition changed;
  int count = 0;
};

constexpr int kAdditions = 2000;

void* add_many(void* argument) {
  auto& counter = *static_cast<WaitedCounter*>(argument);
  for (int i = 0; i < kAdditions; ++i) {
    const MutexGuard guard(counter.mutex);
    ++counter.count;
    counter.changed.notify_all();
  }
  return nullptr;
}

TEST(Mutex, OneThreadAtATime) {
  WaitedCounter counter;
  std::array<Thread, 4> threads;
  for (Thread& thread : threads) ASSERT_TRUE(thread.start(add_many, &counter));
  for (Thread& thread : threads) thread.join();
  EXPECT_EQ(counter.count, 4 * kAdditions);
}

TEST(Condition, WakesEveryWaiter) {
  WaitedCounter counter;
  std::array<Thread, 3> threads;
  const auto wait = [](void* argument) -> void* {
    auto& waited_for = *static_cast<WaitedCounter*>(argument);
    const MutexGuard guard(waited_for.mutex);
    while (waited_for.count < kAdditions) waited_for.changed.wait(waited_for.mutex);
    return nullptr;
  };
  for (Thread& thread : threads) ASSERT_TRUE(thread.start(wait, &counter));
  add_many(&counter);
  for (Thread& thread : threads) thread.join();
}

TEST(Condition, WaitsAsLongAsItMay) {
  WaitedCounter counter;
  const MutexGuard guard(counter.mutex);
  const std::uint64_t start = tick_ms();
  // A wait may end early.
  for (int i = 0; i < 1000 && tick_ms() - start + 20 < 60; ++i) {
    counter.changed.wait_within(counter.mutex, 60);
  }
  EXPECT_GE(tick_ms() - start + 20, 60U);
}

TEST(Condition, WaitsNoLongerThanItMay) {
  WaitedCounter counter;
  const MutexGuard guard(counter.mutex);
  for (const std::uint32_t milliseconds : {0U, 10U}) {
    const auto wait = [&] { counter.changed.wait_within(counter.mutex, milliseconds); };
    EXPECT_LT(testing::shortest_ms(milliseconds + 1000, wait), milliseconds + 1000U);
  }
}

TEST(Condition, ANotificationEndsAWaitWithALimit) {
  WaitedCounter counter;
  Thread thread;
  const std::uint64_t start = tick_ms();
  {
    const MutexGuard guard(counter.mutex);
    ASSERT_TRUE(thread.start(add_many, &counter));
    while (counter.count < kAdditions) counter.changed.wait_within(counter.mutex, 600000);
  }
  thread.join();
  EXPECT_LT(tick_ms() - start, 600000U);
}

}  // namespace
}  // namespace kova

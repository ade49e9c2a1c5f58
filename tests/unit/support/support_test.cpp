// The test support itself: a guard that does not guard would let every other test pass.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/console.h"
#include "platform/crypto.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "support/allocation_failure.h"
#include "support/captured_output.h"
#include "support/child_modes.h"
#include "support/child_watch.h"
#include "support/current_thread.h"
#include "support/digest_failure.h"
#include "support/environment.h"
#include "support/guard_page.h"
#include "support/random_failure.h"
#include "support/temporary_directory.h"
#include "support/thread_failure.h"

namespace kova::testing {
namespace {

TEST(GuardPageDeathTest, ReadingPastEitherSideEndsTheProgram) {
  const GuardedText after("abc", GuardSide::kAfter);
  const GuardedText before("abc", GuardSide::kBefore);
  EXPECT_EQ(after.view(), "abc");
  EXPECT_EQ(before.view(), "abc");
  const volatile char* past = after.data() + 3;
  const volatile char* ahead = before.data() - 1;
  EXPECT_DEATH(std::exit(*past), "");
  EXPECT_DEATH(std::exit(*ahead), "");
}

TEST(GuardPageDeathTest, WritingPastABufferEndsTheProgram) {
  const GuardedBuffer buffer(5);
  volatile char* bytes = buffer.data();
  bytes[4] = 'x';
  EXPECT_DEATH(bytes[5] = 'x', "");
}

TEST(AllocationFailure, RefusesExactlyTheNthAllocation) {
  void* first = nullptr;
  void* second = nullptr;
  void* third = nullptr;
  bool happened = false;
  {
    const AllocationFailure failure(2);
    first = std::malloc(10);
    second = std::malloc(10);
    third = std::malloc(10);
    happened = AllocationFailure::happened();
  }
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_NE(third, nullptr);
  EXPECT_TRUE(happened);
  std::free(first);
  std::free(third);
}

TEST(AllocationFailure, RefusesReallocAndKeepsTheBlock) {
  char* block = static_cast<char*>(std::malloc(4));
  ASSERT_NE(block, nullptr);
  block[0] = 'k';
  void* grown = nullptr;
  {
    const AllocationFailure failure(1);
    // Called through a pointer, as the compiler takes the block for gone after a plain call.
    void* (*volatile reallocate)(void*, std::size_t) = std::realloc;
    grown = reallocate(block, 4096);
  }
  EXPECT_EQ(grown, nullptr);
  EXPECT_EQ(block[0], 'k');
  std::free(block);
}

// A thread that allocates on demand, and says what it got.
class AllocatingThread {
 public:
  AllocatingThread() : thread_([this] { run(); }) {}
  ~AllocatingThread() { thread_.join(); }
  [[nodiscard]] std::uintptr_t thread() const {
    while (id_ == 0) yield_thread();
    return id_;
  }
  void* block() {
    wanted_ = true;
    while (!done_) yield_thread();
    return block_;
  }

 private:
  void run() {
    id_ = current_thread();
    while (!wanted_) yield_thread();
    block_ = std::malloc(10);
    done_ = true;
  }
  std::atomic<std::uintptr_t> id_{0};
  std::atomic<bool> wanted_{false};
  std::atomic<bool> done_{false};
  void* block_ = nullptr;
  std::thread thread_;
};

TEST(AllocationFailure, LeavesOtherThreadsAlone) {
  AllocatingThread other;
  void* theirs = nullptr;
  void* ours = nullptr;
  bool happened_to_them = true;
  const unsigned long before = allocation_count();
  {
    const AllocationFailure failure(1);
    theirs = other.block();
    happened_to_them = AllocationFailure::happened();
    ours = std::malloc(10);
  }
  EXPECT_NE(theirs, nullptr);
  EXPECT_FALSE(happened_to_them);
  EXPECT_EQ(ours, nullptr);
  EXPECT_EQ(allocation_count() - before, 1U);
  std::free(theirs);
}

TEST(AllocationFailure, RefusesTheThreadThatItIsGiven) {
  AllocatingThread other;
  void* theirs = nullptr;
  void* ours = nullptr;
  bool happened = false;
  {
    const AllocationFailure failure(1, other.thread());
    ours = std::malloc(10);
    theirs = other.block();
    happened = AllocationFailure::happened();
  }
  EXPECT_NE(ours, nullptr);
  EXPECT_EQ(theirs, nullptr);
  EXPECT_TRUE(happened);
  std::free(ours);
}

TEST(ThreadFailure, StartsNoThreadWhileItLives) {
  Thread thread;
  const auto nothing = [](void*) -> void* { return nullptr; };
  {
    const ThreadFailure failure;
    EXPECT_FALSE(thread.start(nothing, nullptr));
    EXPECT_FALSE(start_detached(nothing, nullptr));
  }
  EXPECT_TRUE(thread.start(nothing, nullptr));
  EXPECT_TRUE(start_detached(nothing, nullptr));
}

TEST(RandomFailure, GivesNoBytesWhileItLives) {
  std::uint8_t bytes[16];
  {
    const RandomFailure failure;
    EXPECT_FALSE(random_bytes(bytes, sizeof bytes));
  }
  EXPECT_TRUE(random_bytes(bytes, sizeof bytes));
}

TEST(ChildWatch, SeesWhatIsStartedAndCollected) {
  const int before = uncollected_children();
  ChildProcess child;
  ASSERT_TRUE(child.start(kChildExit7));
  EXPECT_EQ(uncollected_children(), before + 1);
  child.wait();
  EXPECT_EQ(child.collect(), 7U);
  EXPECT_EQ(uncollected_children(), before);
  EXPECT_EQ(last_exit_code(), 7U);
}

TEST(DigestFailure, FailsEveryDigestWhileItLives) {
  std::uint8_t digest[kSha256Size];
  {
    const DigestFailure failure;
    EXPECT_FALSE(sha256_digest("x", digest));
    EXPECT_FALSE(hmac_sha256_digest("x", "key", digest));
  }
  EXPECT_TRUE(sha256_digest("x", digest));
  EXPECT_TRUE(hmac_sha256_digest("x", "key", digest));
}

TEST(CapturedOutput, TakesWhatWasWrittenSinceTheLastTime) {
  CapturedOutput output;
  EXPECT_EQ(output.take(), "");
  write_stdout("one\n");
  EXPECT_EQ(output.take(), "one\n");
  write_stdout("two\n");
  write_stdout(std::string("a\0b\n", 4));
  EXPECT_EQ(output.take(), std::string("two\na\0b\n", 8));
}

TEST(ScopedEnvironment, SetsAndRestores) {
  const ScopedEnvironment outer("KOVA_TEST_VARIABLE", "outer");
  {
    ScopedEnvironment inner("KOVA_TEST_VARIABLE", "inner");
    EXPECT_EQ(EnvironmentValue("KOVA_TEST_VARIABLE").view(), "inner");
    inner.unset();
    EXPECT_FALSE(EnvironmentValue("KOVA_TEST_VARIABLE").is_set());
  }
  EXPECT_EQ(EnvironmentValue("KOVA_TEST_VARIABLE").view(), "outer");
}

TEST(TemporaryDirectory, HoldsFilesAndGoesAway) {
  std::string path;
  {
    const TemporaryDirectory directory;
    path = directory.file("a file");
    write_file(path, "bytes\r\n");
    EXPECT_EQ(read_file(path), "bytes\r\n");
  }
  EXPECT_EQ(read_file(path), "");
}

}  // namespace
}  // namespace kova::testing

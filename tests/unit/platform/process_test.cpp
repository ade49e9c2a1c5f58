#include "platform/process.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "platform/console.h"
#include "platform/thread.h"
#include "support/child_modes.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

class ChildProcessTest : public ::testing::Test {
 protected:
  ChildProcessTest() { prepare_standard_streams(); }

  static std::string read_all(ChildProcess& child) {
    std::string text;
    char block[4096];
    while (const std::size_t got = child.read_output(block, sizeof block)) text.append(block, got);
    return text;
  }

  static std::uint32_t finish(ChildProcess& child) {
    child.wait();
    return child.collect();
  }
};

TEST_F(ChildProcessTest, TakesInputAndGivesOutput) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildEcho));
  child.write_input("one\r\n");
  child.write_input(std::string_view("t\0wo\n\x1a", 6));
  child.close_input();
  EXPECT_EQ(read_all(child), std::string("one\r\nt\0wo\n\x1a", 11));
  EXPECT_EQ(finish(child), 0U);
}

TEST_F(ChildProcessTest, AMessageLargerThanAnyPipe) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildEcho));
  const std::string message(1048577, 'm');
  child.write_input(message);
  child.close_input();
  EXPECT_TRUE(read_all(child) == message);
  EXPECT_EQ(finish(child), 0U);
}

TEST_F(ChildProcessTest, ExitCodes) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildExit7));
  EXPECT_EQ(read_all(child), "");
  EXPECT_EQ(finish(child), 7U);
}

TEST_F(ChildProcessTest, InputThatNobodyReadsIsDropped) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildExit7));
  child.wait();
  EXPECT_FALSE(child.write_input(std::string(300000, 'x')));
  child.close_input();
  EXPECT_EQ(child.collect(), 7U);
}

TEST_F(ChildProcessTest, AWriteThatWaitsComesBackWhenTheChildIsTerminated) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  std::thread writer([&child] { EXPECT_FALSE(child.write_input(std::string(10000000, 'x'))); });
  child.terminate(0);
  writer.join();
  EXPECT_EQ(finish(child), 0U);
}

TEST_F(ChildProcessTest, WaitingWithinATime) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  EXPECT_FALSE(child.wait_within(0));
  EXPECT_FALSE(child.wait_within(20));
  child.terminate(kCancelledExitCode);
  EXPECT_TRUE(child.wait_within(60000));
  EXPECT_TRUE(child.wait_within(0));
  EXPECT_EQ(child.collect(), 1223U);
}

TEST_F(ChildProcessTest, ACollectedOrAbandonedOneCanBeStartedAnew) {
  ChildProcess child;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(child.start(testing::kChildEcho));
    EXPECT_TRUE(child.write_input("x\n"));
    child.close_input();
    EXPECT_EQ(read_all(child), "x\n");
    child.wait();
    if (round == 1) {
      child.abandon();
    } else {
      EXPECT_EQ(child.collect(), 0U);
    }
  }
}

TEST_F(ChildProcessTest, ACrashIsNoSuccess) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildCrash));
  child.close_input();
  EXPECT_EQ(read_all(child), "a whole reply\n");
  EXPECT_NE(finish(child), 0U);
}

TEST_F(ChildProcessTest, TerminationGivesItsExitCode) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  char ready[6];
  ASSERT_EQ(child.read_output(ready, sizeof ready), 6U);
  child.terminate(kCancelledExitCode);
  EXPECT_EQ(read_all(child), "");
  EXPECT_EQ(finish(child), 1223U);
}

TEST_F(ChildProcessTest, TerminationRightAfterTheStart) {
  for (int round = 0; round < 5; ++round) {
    ChildProcess child;
    ASSERT_TRUE(child.start(testing::kChildHang));
    child.terminate(kCancelledExitCode);
    child.write_input("a message\n");
    child.close_input();
    static_cast<void>(read_all(child));
    EXPECT_EQ(finish(child), 1223U);
  }
}

TEST_F(ChildProcessTest, TerminationByAnotherThread) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  std::thread other([&child] { child.terminate(kCancelledExitCode); });
  static_cast<void>(read_all(child));
  other.join();
  EXPECT_EQ(finish(child), 1223U);
}

TEST_F(ChildProcessTest, AnEndedChildKeepsItsExitCode) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildExit7));
  child.wait();
  child.terminate(kCancelledExitCode);
  EXPECT_EQ(child.collect(), 7U);
}

// A call that is cancelled at any moment of its child's start ends, and so does its output.
TEST_F(ChildProcessTest, TerminationAtEveryMomentOfTheStart) {
  for (int round = 0; round < 20; ++round) {
    ChildProcess child;
    ASSERT_TRUE(child.start(testing::kChildHang));
    std::thread other([&child, round] {
      const std::uint64_t until = tick_ms() + static_cast<std::uint64_t>(round);
      while (tick_ms() < until) yield_thread();
      child.terminate(kCancelledExitCode);
    });
    static_cast<void>(read_all(child));
    other.join();
    EXPECT_EQ(finish(child), 1223U);
  }
}

TEST_F(ChildProcessTest, LongOutputComesWhole) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildLong));
  child.close_input();
  EXPECT_EQ(read_all(child).size(), 3000000U);
  EXPECT_EQ(finish(child), 0U);
}

TEST_F(ChildProcessTest, InheritsNothingButItsStreams) {
  const testing::TemporaryDirectory directory;
  ASSERT_TRUE(testing::open_inheritable_file(directory.file("inheritable").c_str()));
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHandles));
  child.close_input();
  EXPECT_EQ(read_all(child), "none\n");
  EXPECT_EQ(finish(child), 0U);
}

// A sibling that held the write end of another one's pipe would keep its output from ending.
TEST_F(ChildProcessTest, ChildrenStartedTogetherHoldNoPipesOfEachOther) {
  ChildProcess lasting;
  std::array<ChildProcess, 4> short_lived;
  std::array<std::string, 4> outputs;
  std::array<std::thread, 4> threads;
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i] = std::thread([&child = short_lived[i], &output = outputs[i]] {
      if (!child.start(testing::kChildEcho)) return;
      child.write_input("x\n");
      child.close_input();
      output = read_all(child);
      static_cast<void>(finish(child));
    });
  }
  ASSERT_TRUE(lasting.start(testing::kChildHang));
  for (std::thread& thread : threads) thread.join();
  for (const std::string& output : outputs) EXPECT_EQ(output, "x\n");
  lasting.terminate(kCancelledExitCode);
  EXPECT_EQ(finish(lasting), 1223U);
}

}  // namespace
}  // namespace kova

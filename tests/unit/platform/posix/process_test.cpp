#include "platform/process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "support/child_modes.h"

namespace kova {
namespace {

TEST(ChildProcessPosix, ASignalIsTracedAsOneHundredAndTwentyEightAndItsNumber) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildCrash));
  child.close_input();
  child.wait();
  EXPECT_EQ(child.collect(), 128U + SIGSEGV);
}

TEST(ChildProcessPosix, NoZombieStays) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildExit7));
  child.wait();
  EXPECT_EQ(child.collect(), 7U);
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace kova

#include "platform/process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>

#include "platform/console.h"
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

std::string only_child() {
  std::ifstream file("/proc/self/task/" + std::to_string(gettid()) + "/children");
  std::string process;
  file >> process;
  return process;
}

// A server that ignores the signal would otherwise hand that down to what its children start.
TEST(ChildProcessPosix, TheSignalOfABrokenPipeIsTheDefaultOne) {
  prepare_standard_streams();
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  char ready[6];
  ASSERT_EQ(child.read_output(ready, sizeof ready), 6U);
  std::ifstream status("/proc/" + only_child() + "/status");
  std::string word;
  while (word != "SigIgn:" && status >> word) {
  }
  unsigned long ignored = ~0UL;
  status >> std::hex >> ignored;
  EXPECT_EQ(ignored & (1UL << (SIGPIPE - 1)), 0U);
  child.terminate(kCancelledExitCode);
  child.wait();
  EXPECT_EQ(child.collect(), 1223U);
}

}  // namespace
}  // namespace kova

#include "platform/process.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>

#include "platform/console.h"
#include "support/child_modes.h"
#include "support/posix/child_modes.h"
#include "support/posix/system_call_failure.h"

namespace kova {
namespace {

using testing::SystemCall;
using testing::SystemCallFailure;

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

bool is_ignored(const std::string& process, int signal) {
  std::ifstream status("/proc/" + process + "/status");
  std::string word;
  while (word != "SigIgn:" && status >> word) {
  }
  unsigned long ignored = 0;
  status >> std::hex >> ignored;
  return (ignored & (1UL << (signal - 1))) != 0;
}

// A server that ignores the signal would otherwise hand that down to what its children start.
TEST(ChildProcessPosix, TheSignalOfABrokenPipeIsTheDefaultOne) {
  prepare_standard_streams();
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  char ready[6];
  ASSERT_EQ(child.read_output(ready, sizeof ready), 6U);
  EXPECT_TRUE(is_ignored("self", SIGPIPE));
  EXPECT_FALSE(is_ignored(only_child(), SIGPIPE));
  child.terminate(kCancelledExitCode);
  child.wait();
  EXPECT_EQ(child.collect(), 1223U);
}

TEST(ChildProcessPosix, TheSignalOfAFileSizeLimitIsTheDefaultOne) {
  prepare_standard_streams();
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  char ready[6];
  ASSERT_EQ(child.read_output(ready, sizeof ready), 6U);
  EXPECT_TRUE(is_ignored("self", SIGXFSZ));
  EXPECT_FALSE(is_ignored(only_child(), SIGXFSZ));
  child.terminate(kCancelledExitCode);
  child.wait();
  EXPECT_EQ(child.collect(), 1223U);
}

TEST(ChildProcessPosix, AnInterruptedWaitForOutputIsRetried) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  const SystemCallFailure failure(SystemCall::kPoll, EINTR, 1, 3);
  char ready[6];
  EXPECT_EQ(child.read_output(ready, sizeof ready), 6U);
  EXPECT_EQ(SystemCallFailure::failed(), 3);
  child.terminate(kCancelledExitCode);
  child.wait();
  EXPECT_EQ(child.collect(), 1223U);
}

// What cannot be waited for counts as the end: the caller sees a child without a reply.
TEST(ChildProcessPosix, AWaitForOutputThatFailsIsTheEnd) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildHang));
  {
    const SystemCallFailure failure(SystemCall::kPoll, ENOMEM);
    char ready[6];
    EXPECT_EQ(child.read_output(ready, sizeof ready), 0U);
    EXPECT_EQ(SystemCallFailure::failed(), 1);
  }
  child.terminate(kCancelledExitCode);
  child.wait();
  EXPECT_EQ(child.collect(), 1223U);
}

// The test program's own name, not that of the path by which children are started.
TEST(PrepareProcess, GivesAChildItsNameAndTheSignalOfItsParentsEnd) {
  ChildProcess child;
  ASSERT_TRUE(child.start(testing::kChildPrepared));
  child.close_input();
  char block[256];
  std::string text;
  while (const std::size_t got = child.read_output(block, sizeof block)) text.append(block, got);
  child.wait();
  EXPECT_EQ(child.collect(), 0U);
  EXPECT_EQ(text, "kova-unit-tests signal " + std::to_string(SIGKILL) + "\n");
}

// The signal that was asked for too late never comes. The orphan becomes a child of this process.
TEST(PrepareProcess, DoesNotReturnWhenTheParentHasEnded) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  ChildProcess parent;
  ASSERT_TRUE(parent.start(testing::kChildOrphaning));
  parent.wait();
  EXPECT_EQ(parent.collect(), 0U);
  int status = 0;
  EXPECT_GT(waitpid(-1, &status, 0), 0);
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

// A process that somebody else started does not end with that one.
TEST(PrepareProcess, LeavesOtherProcessesAlone) {
  prepare_process();
  int signal = -1;
  ASSERT_EQ(prctl(PR_GET_PDEATHSIG, &signal), 0);
  EXPECT_EQ(signal, 0);
}

}  // namespace
}  // namespace kova

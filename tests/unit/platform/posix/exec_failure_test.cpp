#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <string>

#include "platform/process.h"
#include "support/child_modes.h"
#include "support/environment.h"

namespace kova {
namespace {

// Linux executes nothing with a variable of 128 KiB or more.
TEST(ChildProcessPosix, AnExecThatFailsIsNoStart) {
  const testing::ScopedEnvironment large("KOVA_TEST_LARGE", std::string(131072, 'x'));
  ChildProcess child;
  EXPECT_FALSE(child.start(testing::kChildEcho));
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace kova

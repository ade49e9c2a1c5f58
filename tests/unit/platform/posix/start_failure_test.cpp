// Steps of a child's start that fail.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "platform/console.h"
#include "platform/process.h"
#include "support/child_modes.h"
#include "support/posix/system_call_failure.h"
#include "support/temporary_directory.h"

namespace kova {
namespace {

using testing::SystemCall;
using testing::SystemCallFailure;
using testing::TemporaryDirectory;

class ChildProcessStart : public ::testing::Test {
 protected:
  ChildProcessStart() { prepare_standard_streams(); }

  static std::size_t open_descriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
      ++count;
    }
    return count;
  }

  static void expect_no_child() {
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  static std::string output_of(const char* mode) {
    ChildProcess child;
    if (!child.start(mode)) return "not started";
    child.close_input();
    std::string text;
    char block[4096];
    while (const std::size_t got = child.read_output(block, sizeof block)) text.append(block, got);
    child.wait();
    EXPECT_EQ(child.collect(), 0U);
    return text;
  }
};

TEST_F(ChildProcessStart, AStepThatFailsLeavesNothingBehind) {
  const struct {
    const char* name;
    SystemCall call;
    int nth;
    int error;
  } rows[] = {
      {"the pipe of the input", SystemCall::kPipe2, 1, EMFILE},
      {"the pipe of the output", SystemCall::kPipe2, 2, ENFILE},
      {"the signal of the parent's end", SystemCall::kPrctl, 1, EINVAL},
      {"the place of standard input", SystemCall::kDup2, 1, EBUSY},
      {"the place of standard output", SystemCall::kDup2, 2, EINTR},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::size_t before = open_descriptors();
    {
      const SystemCallFailure failure(row.call, row.error, row.nth, 1);
      ChildProcess child;
      EXPECT_FALSE(child.start(testing::kChildEcho));
      EXPECT_FALSE(child.job_refused());
      EXPECT_EQ(SystemCallFailure::failed(), 1);
    }
    EXPECT_EQ(open_descriptors(), before);
    expect_no_child();
    EXPECT_EQ(output_of(testing::kChildHandles), "none\n");
  }
}

// Systems before Linux 5.11 lack the call, and sandboxes forbid it.
TEST_F(ChildProcessStart, WithoutCloseRangeTheChildInheritsNothingElseEither) {
  const TemporaryDirectory directory;
  for (const int error : {ENOSYS, EPERM, EINVAL}) {
    for (int file = 0; file < 100; ++file) {
      ASSERT_TRUE(testing::open_inheritable_file(directory.file("inheritable").c_str()));
    }
    const SystemCallFailure failure(SystemCall::kCloseRange, error);
    EXPECT_EQ(output_of(testing::kChildHandles), "none\n") << error;
    EXPECT_EQ(SystemCallFailure::failed(), 1);
  }
}

TEST_F(ChildProcessStart, WithoutCloseRangeTheChildNeedsNoFreeDescriptor) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(testing::open_inheritable_file(directory.file("inheritable").c_str()));
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  // The two pipes and what tells the child's end take the last numbers.
  const int next = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  close(next);
  const rlimit exact{static_cast<rlim_t>(next) + 4, before.rlim_max};
  std::string output;
  {
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &exact), 0);
    const SystemCallFailure failure(SystemCall::kCloseRange, ENOSYS);
    output = output_of(testing::kChildEcho);
    EXPECT_EQ(SystemCallFailure::failed(), 1);
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(output, "");
}

TEST_F(ChildProcessStart, WithoutAFreeDescriptorThereIsNoChild) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const std::size_t held = open_descriptors();
  const int next = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  close(next);
  for (rlim_t room = 0; room < 4; ++room) {
    const rlimit tight{static_cast<rlim_t>(next) + room, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    ChildProcess child;
    const bool started = child.start(testing::kChildEcho);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(started) << room;
  }
  EXPECT_EQ(open_descriptors(), held);
  expect_no_child();
}

// Without a descriptor that tells of the child's end, the end of its output does.
TEST_F(ChildProcessStart, WithoutADescriptorOfTheChildItsOutputTellsItsEnd) {
  for (const int error : {EMFILE, ENOSYS, ENOMEM}) {
    const SystemCallFailure failure(SystemCall::kPidfdOpen, error);
    EXPECT_EQ(output_of(testing::kChildLong).size(), 3000000U) << error;
    EXPECT_EQ(SystemCallFailure::failed(), 1);
  }
}

}  // namespace
}  // namespace kova

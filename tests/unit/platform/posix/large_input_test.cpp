// The pipe of a child's input, which is enlarged for a long message where the system allows that.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/console.h"
#include "platform/process.h"
#include "support/child_modes.h"
#include "support/posix/child_modes.h"
#include "support/posix/system_call_failure.h"

namespace kova {
namespace {

using testing::SystemCall;
using testing::SystemCallFailure;

constexpr std::size_t kLongest = 1048576;

/// Bytes of which no part is like another one nearby.
std::string message_of(std::size_t length) {
  std::string text;
  for (std::size_t number = 0; text.size() < length; ++number) text += std::to_string(number) + ",";
  text.resize(length);
  return text;
}

/// What a pipe of this system can hold, as it is made or after a wish for more.
int capacity(int wanted = 0) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  if (wanted > 0) fcntl(ends[1], F_SETPIPE_SZ, wanted);
  const int found = fcntl(ends[0], F_GETPIPE_SZ);
  close(ends[0]);
  close(ends[1]);
  return found;
}

class ChildInput : public ::testing::Test {
 protected:
  ChildInput() { prepare_standard_streams(); }

  /// Gives a child all of a message and returns the size of the pipe.
  static int pipe_size_after(std::size_t length) {
    const std::string message = message_of(length);
    ChildProcess child;
    EXPECT_TRUE(child.start(testing::kChildPipeSize));
    EXPECT_TRUE(child.write_input(message));
    child.close_input();
    std::string text;
    char block[65536];
    while (const std::size_t got = child.read_output(block, sizeof block)) text.append(block, got);
    child.wait();
    EXPECT_EQ(child.collect(), 0U);
    const std::size_t line = text.find('\n');
    EXPECT_TRUE(line != std::string::npos && text.compare(line + 1, text.npos, message) == 0)
        << text.size() << " bytes";
    return std::stoi(text);
  }
};

TEST_F(ChildInput, APipeIsEnlargedForALongMessage) {
  // Of the system's own answers, the one that this process gets: there are limits for accounts.
  for (const int length : {65537, 200000, static_cast<int>(kLongest)}) {
    EXPECT_EQ(pipe_size_after(static_cast<std::size_t>(length)), capacity(length)) << length;
  }
  EXPECT_EQ(pipe_size_after(kLongest + 1), capacity(kLongest));
}

TEST_F(ChildInput, ThePipeOfAShortMessageIsLeftAsItIs) {
  const SystemCallFailure failure(SystemCall::kSetPipeSize, EPERM);
  for (const std::size_t length : {0U, 1U, 65535U, 65536U}) {
    EXPECT_EQ(pipe_size_after(length), capacity()) << length;
  }
  EXPECT_EQ(SystemCallFailure::failed(), 0);
}

TEST_F(ChildInput, APipeThatCannotBeEnlargedDoesAsWell) {
  for (const int error : {EPERM, EBUSY, ENOMEM, EINVAL}) {
    const SystemCallFailure failure(SystemCall::kSetPipeSize, error);
    EXPECT_EQ(pipe_size_after(kLongest), capacity()) << error;
    EXPECT_EQ(SystemCallFailure::failed(), 1);
  }
}

}  // namespace
}  // namespace kova

#include "platform/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "support/captured_output.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::Stream;

TEST(ConsolePosix, StandardErrorKeepsLineFeeds) {
  CapturedOutput error(Stream::kError);
  write_stderr("one\ntwo\n");
  EXPECT_EQ(error.take(), "one\ntwo\n");
}

TEST(ConsolePosix, AReaderThatHasGoneDoesNotEndTheProcess) {
  prepare_standard_streams();
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);
  const int original = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  ASSERT_GE(dup2(ends[1], STDOUT_FILENO), 0);
  write_stdout("nobody reads this\n");
  ASSERT_GE(dup2(original, STDOUT_FILENO), 0);
  close(original);
  close(ends[1]);
}

TEST(ConsolePosix, InputIsReadAsItComes) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int original = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  ASSERT_GE(dup2(ends[0], STDIN_FILENO), 0);
  close(ends[0]);
  ASSERT_EQ(write(ends[1], "a\r\n\0z", 5), 5);
  char bytes[16];
  EXPECT_EQ(read_stdin(bytes, 2), 2U);
  EXPECT_EQ(std::string(bytes, 2), "a\r");
  EXPECT_EQ(read_stdin(bytes, sizeof bytes), 3U);
  EXPECT_EQ(std::string(bytes, 3), std::string("\n\0z", 3));
  close(ends[1]);
  EXPECT_EQ(read_stdin(bytes, sizeof bytes), 0U);
  EXPECT_EQ(read_stdin(bytes, sizeof bytes), 0U);
  dup2(original, STDIN_FILENO);
  close(original);
}

}  // namespace
}  // namespace kova

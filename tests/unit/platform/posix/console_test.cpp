#include "platform/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

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

// A stream shared with another program may have been made non-blocking by that one.
TEST(ConsolePosix, NonBlockingStreamsAreWaitedFor) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  ASSERT_GE(dup2(ends[1], STDOUT_FILENO), 0);
  ASSERT_GE(dup2(ends[0], STDIN_FILENO), 0);
  close(ends[0]);
  close(ends[1]);
  constexpr std::size_t kSize = 1000000;
  std::thread writer([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    write_stdout(std::string(kSize, 'w'));
  });
  std::size_t seen = 0;
  char block[4096];
  while (seen < kSize) {
    const std::size_t got = read_stdin(block, sizeof block);
    if (got == 0) break;
    seen += got;
  }
  writer.join();
  dup2(output, STDOUT_FILENO);
  dup2(input, STDIN_FILENO);
  close(output);
  close(input);
  EXPECT_EQ(seen, kSize);
}

}  // namespace
}  // namespace kova

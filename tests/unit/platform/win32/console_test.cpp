#include "platform/console.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>

#include "platform/thread.h"
#include "support/captured_output.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::Stream;

TEST(ConsoleWindows, StandardErrorIsInTextMode) {
  CapturedOutput error(Stream::kError);
  write_stderr("one\ntwo\n\n");
  EXPECT_EQ(error.take(), "one\r\ntwo\r\n\r\n");
  std::string text;
  std::string wanted;
  for (int i = 0; i < 700; ++i) {
    text += "abc\n";
    wanted += "abc\r\n";
  }
  write_stderr(text);
  EXPECT_EQ(error.take(), wanted);
}

TEST(ConsoleWindows, InputIsReadAsItComes) {
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;
  ASSERT_TRUE(CreatePipe(&read_end, &write_end, nullptr, 0));
  const HANDLE original = GetStdHandle(STD_INPUT_HANDLE);
  ASSERT_TRUE(SetStdHandle(STD_INPUT_HANDLE, read_end));
  DWORD written = 0;
  ASSERT_TRUE(WriteFile(write_end, "a\r\n\0\x1az", 6, &written, nullptr));
  char bytes[16];
  EXPECT_EQ(read_stdin(bytes, 2), 2U);
  EXPECT_EQ(std::string(bytes, 2), "a\r");
  EXPECT_EQ(read_stdin(bytes, sizeof bytes), 4U);
  EXPECT_EQ(std::string(bytes, 4), std::string("\n\0\x1az", 4));
  CloseHandle(write_end);
  EXPECT_EQ(read_stdin(bytes, sizeof bytes), 0U);
  EXPECT_EQ(read_stdin(bytes, sizeof bytes), 0U);
  SetStdHandle(STD_INPUT_HANDLE, original);
  CloseHandle(read_end);
}

TEST(ConsoleWindows, AReaderThatHasGoneIsNoTrouble) {
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;
  ASSERT_TRUE(CreatePipe(&read_end, &write_end, nullptr, 0));
  CloseHandle(read_end);
  const HANDLE original = GetStdHandle(STD_OUTPUT_HANDLE);
  ASSERT_TRUE(SetStdHandle(STD_OUTPUT_HANDLE, write_end));
  write_stdout("nobody reads this\n");
  SetStdHandle(STD_OUTPUT_HANDLE, original);
  CloseHandle(write_end);
}

// A stream shared with another program may have been made non-blocking by that one.
TEST(ConsoleWindows, NonBlockingStreamsAreWaitedFor) {
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;
  ASSERT_TRUE(CreatePipe(&read_end, &write_end, nullptr, 4096));
  DWORD mode = PIPE_NOWAIT;
  ASSERT_TRUE(SetNamedPipeHandleState(read_end, &mode, nullptr, nullptr));
  ASSERT_TRUE(SetNamedPipeHandleState(write_end, &mode, nullptr, nullptr));
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  ASSERT_TRUE(SetStdHandle(STD_INPUT_HANDLE, read_end));
  ASSERT_TRUE(SetStdHandle(STD_OUTPUT_HANDLE, write_end));
  constexpr std::size_t kSize = 300000;
  std::thread writer([] {
    sleep_thread(30);
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
  SetStdHandle(STD_INPUT_HANDLE, input);
  SetStdHandle(STD_OUTPUT_HANDLE, output);
  EXPECT_EQ(seen, kSize);
  CloseHandle(write_end);
  CloseHandle(read_end);
}

TEST(ConsoleWindows, MissingStreamsAreEmptyAndTakeNothing) {
  for (const HANDLE missing : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE}) {
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    ASSERT_TRUE(SetStdHandle(STD_INPUT_HANDLE, missing));
    ASSERT_TRUE(SetStdHandle(STD_OUTPUT_HANDLE, missing));
    char byte = 0;
    const std::size_t got = read_stdin(&byte, 1);
    write_stdout("nobody reads this\n");
    SetStdHandle(STD_INPUT_HANDLE, input);
    SetStdHandle(STD_OUTPUT_HANDLE, output);
    EXPECT_EQ(got, 0U);
  }
}

}  // namespace
}  // namespace kova

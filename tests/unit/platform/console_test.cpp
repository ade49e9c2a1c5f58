#include "platform/console.h"

#include <gtest/gtest.h>

#include <string>

#include "support/captured_output.h"

namespace kova {
namespace {

using testing::CapturedOutput;
using testing::Stream;

TEST(Console, StandardOutputTakesTheBytesAsTheyAre) {
  CapturedOutput output;
  write_stdout("");
  EXPECT_EQ(output.take(), "");
  write_stdout("one\n");
  EXPECT_EQ(output.take(), "one\n");
  std::string every;
  for (int i = 0; i < 256; ++i) every += static_cast<char>(i);
  every += "\r\n\n\r\x1a\n";
  write_stdout(every);
  EXPECT_EQ(output.take(), every);
  const std::string large(3000000, 'x');
  write_stdout(large);
  EXPECT_TRUE(output.take() == large);
}

TEST(Console, TheStreamsAreApart) {
  CapturedOutput output(Stream::kOutput);
  CapturedOutput error(Stream::kError);
  write_stdout("to output");
  write_stderr("to error");
  EXPECT_EQ(output.take(), "to output");
  EXPECT_EQ(error.take(), "to error");
}

}  // namespace
}  // namespace kova

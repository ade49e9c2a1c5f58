#include "app/line_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/posix/mapping_flags.h"

namespace kova {
namespace {

using testing::flags_of;
using testing::has_large_pages;

std::size_t bytes_left = 0;

// Reads of a pipe, which give at most 64 KiB; the last byte is a line feed.
std::size_t read_pipe(char* data, std::size_t size) {
  const std::size_t got = std::min({size, bytes_left, std::size_t{65536}});
  std::fill_n(data, got, 'x');
  bytes_left -= got;
  if (bytes_left == 0 && got > 0) data[got - 1] = '\n';
  return got;
}

struct Case {
  std::size_t length;
  bool large;
};

class LineReaderPages : public ::testing::TestWithParam<Case> {};

TEST_P(LineReaderPages, OnlyALongLineGoesIntoALargePage) {
  bytes_left = GetParam().length;
  LargeBlock block(kLineBufferCapacity);
  ASSERT_TRUE(block);
  LineReader lines(block, read_pipe);
  Line line;
  ASSERT_TRUE(lines.next(line));
  EXPECT_EQ(line.text, std::string(GetParam().length - 1, 'x') + '\n');
  const std::string flags = flags_of(block.data() + 65536);
  const bool large = GetParam().large && has_large_pages();
  EXPECT_EQ(flags.find(" hg ") != std::string::npos, large) << flags;
}

INSTANTIATE_TEST_SUITE_P(Lengths, LineReaderPages,
                         ::testing::Values(Case{1, false}, Case{65535, false}, Case{65536, false},
                                           Case{65537, true}, Case{1048577, true}));

}  // namespace
}  // namespace kova

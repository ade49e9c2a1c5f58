#include "base/string_scan.h"

#include <gtest/gtest.h>

#include <string>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedText;
using testing::GuardSide;

bool must_stop(int byte, NonAscii non_ascii) {
  return byte < 0x20 || byte == '"' || byte == '\\' ||
         (byte >= 0x80 && non_ascii == NonAscii::kStops);
}

template <NonAscii kNonAscii>
void check_every_byte_at(std::size_t offset, std::size_t size) {
  const GuardedText text(std::string(size, 'p'));
  const char* const begin = text.data();
  const char* const end = begin + size;
  ASSERT_EQ(find_run_end<kNonAscii>(begin, end), end);
  for (int byte = 0; byte < 256; ++byte) {
    text.data()[offset] = static_cast<char>(byte);
    ASSERT_EQ(stops_run<kNonAscii>(static_cast<char>(byte)), must_stop(byte, kNonAscii)) << byte;
    const char* const wanted = must_stop(byte, kNonAscii) ? begin + offset : end;
    ASSERT_EQ(find_run_end<kNonAscii>(begin, end), wanted) << byte << " at " << offset;
  }
}

TEST(ByteRun, EveryByteAtEveryOffset) {
  for (std::size_t size = 1; size <= 50; ++size) {
    for (std::size_t offset = 0; offset < size; ++offset) {
      check_every_byte_at<NonAscii::kStops>(offset, size);
      check_every_byte_at<NonAscii::kPlain>(offset, size);
    }
  }
}

TEST(ByteRun, TheFirstOfSeveralStops) {
  for (std::size_t first = 0; first < 40; ++first) {
    for (std::size_t second = first; second < 40; ++second) {
      std::string bytes(40, 'p');
      bytes[first] = '"';
      if (second != first) bytes[second] = '\n';
      const GuardedText text(bytes);
      const char* const found =
          find_run_end<NonAscii::kStops>(text.data(), text.data() + bytes.size());
      ASSERT_EQ(found, text.data() + first);
    }
  }
}

TEST(ByteRun, NothingToSearch) {
  const GuardedText text("");
  EXPECT_EQ(find_run_end<NonAscii::kStops>(text.data(), text.data()), text.data());
}

}  // namespace
}  // namespace kova

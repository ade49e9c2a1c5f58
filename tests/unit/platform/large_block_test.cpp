#include "platform/large_block.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace kova {
namespace {

constexpr std::size_t kSize = 1048578;

bool is_zero(std::string_view bytes) {
  return std::ranges::all_of(bytes, [](char byte) { return byte == 0; });
}

class LargeBlockOf : public ::testing::TestWithParam<std::size_t> {};

TEST_P(LargeBlockOf, IsZeroedAndWritableToItsEnd) {
  const std::size_t size = GetParam();
  const LargeBlock block(size);
  ASSERT_TRUE(block);
  EXPECT_TRUE(is_zero({block.data(), size}));
  std::fill_n(block.data(), size, 'x');
  EXPECT_EQ(std::string_view(block.data(), size), std::string(size, 'x'));
}

INSTANTIATE_TEST_SUITE_P(Sizes, LargeBlockOf,
                         ::testing::Values(1, 4096, 4097, 65536, kSize, 2097152, 2097153));

class LargeBlockUsedTo : public ::testing::TestWithParam<std::size_t> {};

TEST_P(LargeBlockUsedTo, KeepsWhatIsUsedWhenItMoves) {
  const std::size_t used = GetParam();
  LargeBlock block(kSize);
  ASSERT_TRUE(block);
  std::fill_n(block.data(), used, 'x');
  block.move_to_large_page(used);
  ASSERT_TRUE(block);
  EXPECT_EQ(std::string_view(block.data(), used), std::string(used, 'x'));
  EXPECT_TRUE(is_zero({block.data() + used, kSize - used}));
  std::fill_n(block.data(), kSize, 'y');
  EXPECT_EQ(std::string_view(block.data(), kSize), std::string(kSize, 'y'));
}

INSTANTIATE_TEST_SUITE_P(Lengths, LargeBlockUsedTo,
                         ::testing::Values(0, 1, 4095, 4096, 65535, 65536, 65537, kSize - 1,
                                           kSize));

TEST(LargeBlock, MayFindNoMemory) {
  LargeBlock block(SIZE_MAX / 4);
  EXPECT_FALSE(block);
  block.move_to_large_page(1);
  EXPECT_FALSE(block);
  block.reset();
}

TEST(LargeBlock, CanBeFreedEarly) {
  LargeBlock block(kSize);
  ASSERT_TRUE(block);
  block.reset();
  EXPECT_FALSE(block);
  block.move_to_large_page(1);
  EXPECT_FALSE(block);
}

}  // namespace
}  // namespace kova

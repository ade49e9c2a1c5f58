#include "platform/large_block.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/posix/mapping_flags.h"

namespace kova {
namespace {

using testing::flags_of;
using testing::has_large_pages;

constexpr std::size_t kSize = 1048578;
constexpr std::uintptr_t kLargePage = 2097152;

std::uintptr_t address_of(const char* at) {
  return reinterpret_cast<std::uintptr_t>(at);
}

TEST(LargeBlockPages, WhatIsBehindTheUsedPartIsForALargeOne) {
  if (!has_large_pages()) GTEST_SKIP() << "this kernel has no transparent large pages";
  for (const std::size_t used : {std::size_t{4096}, std::size_t{65536}, std::size_t{65537}}) {
    LargeBlock block(kSize);
    ASSERT_TRUE(block);
    EXPECT_EQ(flags_of(block.data()).find(" hg "), std::string::npos);
    block.move_to_large_page(used);
    const std::size_t head = (used + 4095) / 4096 * 4096;
    EXPECT_EQ(address_of(block.data() + head) % kLargePage, 0U);
    EXPECT_EQ(flags_of(block.data() + head - 1).find(" hg "), std::string::npos);
    EXPECT_NE(flags_of(block.data() + head).find(" hg "), std::string::npos);
    EXPECT_NE(flags_of(block.data() + head + kLargePage - 1).find(" hg "), std::string::npos);
  }
}

TEST(LargeBlockPages, WithoutMemoryForALargePageTheBlockStays) {
  LargeBlock block(kSize);
  ASSERT_TRUE(block);
  std::fill_n(block.data(), kSize, 'x');
  const char* const data = block.data();
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_AS, &before), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &none), 0);
  block.move_to_large_page(65536);
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_EQ(block.data(), data);
  EXPECT_EQ(std::string_view(block.data(), kSize), std::string(kSize, 'x'));
}

}  // namespace
}  // namespace kova

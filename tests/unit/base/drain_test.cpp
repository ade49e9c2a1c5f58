#include "base/drain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kova::testing {
namespace {

TEST(Drain, ReadsPiecesUntilNothingIsLeft) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kDrainSize - 1, kDrainSize,
                                 kDrainSize + 1, 3 * kDrainSize}) {
    std::size_t left = size;
    std::vector<std::size_t> pieces;
    drain([&](char* buffer, std::size_t room) {
      const std::size_t got = std::min(room, left);
      std::fill_n(buffer, got, 'x');
      left -= got;
      pieces.push_back(got);
      return got;
    });
    EXPECT_EQ(left, 0U) << size;
    EXPECT_EQ(pieces.size(), (size + kDrainSize - 1) / kDrainSize + 1) << size;
    EXPECT_EQ(pieces.back(), 0U) << size;
  }
}

}  // namespace
}  // namespace kova::testing

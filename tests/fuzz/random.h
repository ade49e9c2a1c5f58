// The random choices of a mutator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova::fuzz {

/// A small generator (xorshift64*), since a mutator chooses often: the same seed, the same choices.
class Random {
 public:
  explicit Random(unsigned seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}

  /// 0 to `bound` - 1; `bound` is at least 1.
  std::size_t below(std::size_t bound) {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return static_cast<std::size_t>((state_ * 0x2545F4914F6CDD1Du) >> 32) % bound;
  }
  bool one_in(std::size_t bound) { return below(bound) == 0; }

  /// One of a table's entries.
  template <typename Table>
  auto of(const Table& table) {
    return table[below(std::size(table))];
  }

 private:
  std::uint64_t state_;
};

}  // namespace kova::fuzz

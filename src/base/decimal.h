// Whole decimal numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "base/ascii.h"

namespace kova {

/// The value of a text that is digits and nothing else; none for every other text. A value of more
/// than 18 digits becomes 10 to the 18th.
constexpr std::optional<std::uint64_t> whole_decimal(std::string_view text) {
  constexpr std::uint64_t kLimit = 1'000'000'000'000'000'000;
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (!is_digit(c)) return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    value = value < kLimit / 10 ? value * 10 + digit : kLimit;
  }
  return value;
}

}  // namespace kova

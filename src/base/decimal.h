// Decimal numbers at the begin of a text.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/ascii.h"

namespace kova {

/// The integer that a text begins with, after white space and a sign; what follows is not looked
/// at. 0 for none. A value of more than 18 digits becomes 10 to the 18th, with its sign.
constexpr std::int64_t leading_integer(std::string_view text) {
  constexpr std::int64_t kCeiling = 1'000'000'000'000'000'000;
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  std::int64_t value = 0;
  for (const char c : text) {
    if (!is_digit(c)) break;
    value = value < kCeiling / 10 ? value * 10 + (c - '0') : kCeiling;
  }
  return negative ? -value : value;
}

}  // namespace kova

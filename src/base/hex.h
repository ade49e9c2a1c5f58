// Hexadecimal text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/ascii.h"

namespace kova {

/// Writes bytes as lower-case digits, high nibble first, and a terminator.
template <std::size_t kBytes>
void write_hex(const std::uint8_t (&bytes)[kBytes], char (&out)[2 * kBytes + 1]) {
  for (std::size_t i = 0; i < kBytes; ++i) {
    out[2 * i] = kHexDigits[bytes[i] >> 4];
    out[2 * i + 1] = kHexDigits[bytes[i] & 0xF];
  }
  out[2 * kBytes] = '\0';
}

/// Whether the text is exactly `length` hexadecimal digits of either case.
[[nodiscard]] inline bool is_hex(std::string_view text, std::size_t length) {
  return text.size() == length &&
         std::all_of(text.begin(), text.end(), [](char c) { return hex_value(c) >= 0; });
}

}  // namespace kova

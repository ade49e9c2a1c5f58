// ASCII character classes and comparisons. The locale never takes part: a byte above 127 belongs
// to no class and has no other case.
#pragma once

#include <array>
#include <string_view>

namespace kova {

constexpr bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool is_upper(char c) {
  return c >= 'A' && c <= 'Z';
}
constexpr bool is_lower(char c) {
  return c >= 'a' && c <= 'z';
}
constexpr bool is_alpha(char c) {
  return is_upper(c) || is_lower(c);
}
constexpr bool is_alnum(char c) {
  return is_alpha(c) || is_digit(c);
}

/// A byte that may continue a word or a safe name: letter, digit or "_".
constexpr bool is_word_byte(char c) {
  return is_alnum(c) || c == '_';
}

/// White space of the C locale: blank, TAB, LF, VT, FF, CR.
constexpr bool is_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr char to_upper(char c) {
  return is_lower(c) ? static_cast<char>(c - 'a' + 'A') : c;
}
constexpr char to_lower(char c) {
  return is_upper(c) ? static_cast<char>(c - 'A' + 'a') : c;
}

/// The digits of hexadecimal text.
inline constexpr char kHexDigits[] = "0123456789abcdef";

/// What hex_value returns for each byte.
inline constexpr auto kHexValues = [] {
  std::array<signed char, 256> values{};
  values.fill(-1);
  for (int digit = 0; digit < 16; ++digit) {
    values[static_cast<unsigned char>(kHexDigits[digit])] = static_cast<signed char>(digit);
    values[static_cast<unsigned char>(to_upper(kHexDigits[digit]))] =
        static_cast<signed char>(digit);
  }
  return values;
}();

/// The value of a hexadecimal digit of either case, or -1.
constexpr int hex_value(char c) {
  return kHexValues[static_cast<unsigned char>(c)];
}

[[nodiscard]] bool equal_ignoring_case(std::string_view a, std::string_view b);

/// Whether a setting's text switches it on: "1", or "true", "yes" or "on" ignoring case.
[[nodiscard]] bool means_yes(std::string_view text);

}  // namespace kova

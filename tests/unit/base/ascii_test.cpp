#include "base/ascii.h"

#include <gtest/gtest.h>

#include <string_view>

namespace kova {
namespace {

constexpr std::string_view kDecimalDigits = "0123456789";
constexpr std::string_view kUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::string_view kLower = "abcdefghijklmnopqrstuvwxyz";
constexpr std::string_view kSpaces = " \t\n\v\f\r";

bool holds(std::string_view set, char c) {
  return set.find(c) != std::string_view::npos;
}

TEST(Ascii, ClassesOfEveryByte) {
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const char c = static_cast<char>(value);
    const bool alpha = holds(kUpper, c) || holds(kLower, c);
    EXPECT_EQ(is_digit(c), holds(kDecimalDigits, c));
    EXPECT_EQ(is_upper(c), holds(kUpper, c));
    EXPECT_EQ(is_lower(c), holds(kLower, c));
    EXPECT_EQ(is_alpha(c), alpha);
    EXPECT_EQ(is_alnum(c), alpha || holds(kDecimalDigits, c));
    EXPECT_EQ(is_word_byte(c), alpha || holds(kDecimalDigits, c) || c == '_');
    EXPECT_EQ(is_space(c), holds(kSpaces, c));
  }
}

TEST(Ascii, CaseOfEveryByte) {
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const char c = static_cast<char>(value);
    const std::size_t lower = kLower.find(c);
    const std::size_t upper = kUpper.find(c);
    EXPECT_EQ(to_upper(c), lower == std::string_view::npos ? c : kUpper[lower]);
    EXPECT_EQ(to_lower(c), upper == std::string_view::npos ? c : kLower[upper]);
  }
}

TEST(Ascii, HexValueOfEveryByte) {
  constexpr std::string_view lower = "0123456789abcdef";
  constexpr std::string_view upper = "0123456789ABCDEF";
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const char c = static_cast<char>(value);
    std::size_t digit = lower.find(c);
    if (digit == std::string_view::npos) digit = upper.find(c);
    EXPECT_EQ(hex_value(c), digit == std::string_view::npos ? -1 : static_cast<int>(digit));
  }
}

TEST(Ascii, EqualIgnoringCase) {
  using namespace std::string_view_literals;
  const struct {
    std::string_view a, b;
    bool equal;
  } rows[] = {
      {"", "", true},
      {"a", "", false},
      {"PACKAGES", "packages", true},
      {"a1_Z", "A1_z", true},
      {"abc", "abcd", false},
      {"abc", "abd", false},
      {"[", "{", false},
      {"@", "`", false},
      {"_", "\x7f", false},
      {"\xc3\x84", "\xc3\xa4", false},
      {"\xe4", "\xc4", false},
      {"a\0b"sv, "A\0B"sv, true},
      {"a\0b"sv, "A\0c"sv, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.a);
    EXPECT_EQ(equal_ignoring_case(row.a, row.b), row.equal);
    EXPECT_EQ(equal_ignoring_case(row.b, row.a), row.equal);
  }
}

}  // namespace
}  // namespace kova

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

#include "json/json.h"
#include "support/guard_page.h"
#include "unit/json/parsed_text.h"
#include "unit/json/short_types.h"

namespace kova {
namespace {

using testing::GuardedText;
using testing::kP;
using testing::ParsedText;
using namespace std::string_view_literals;

TEST(JsonGetUnsigned, WholeNumbersOfThirtyTwoBits) {
  const struct {
    std::string_view source;
    bool valid;
    std::uint32_t value;
  } rows[] = {
      {"0", true, 0},
      {"1", true, 1},
      {"256", true, 256},
      {"2147483648", true, 2147483648U},
      {"4294967295", true, 4294967295U},
      {"4294967296", false, 0},
      {"4294967297", false, 0},
      {"9999999999", false, 0},
      {"18446744073709551615", false, 0},
      {"18446744073709551616", false, 0},
      {"18446744073709551617", false, 0},
      {"1000000000000000000000000000000", false, 0},   // 31 characters
      {"10000000000000000000000000000000", false, 0},  // 32 characters
      {"-0", false, 0},
      {"-1", false, 0},
      {"1.0", false, 0},
      {"0.0", false, 0},
      {"1e3", false, 0},
      {"1E0", false, 0},
      {"true", false, 0},
      {"false", false, 0},
      {"null", false, 0},
      {"\"5\"", false, 0},
      {"[]", false, 0},
      {"{}", false, 0},
      {"[5]", false, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    const ParsedText parsed(row.source);
    ASSERT_TRUE(parsed.ok());
    std::uint32_t value = 77;
    EXPECT_EQ(json_get_unsigned(parsed.doc(), 0, value), row.valid);
    if (row.valid) {
      EXPECT_EQ(value, row.value);
    }
  }
}

// Primitives that the parser never makes.
TEST(JsonGetUnsigned, HandMadePrimitives) {
  const struct {
    std::string_view source;
    bool valid;
  } rows[] = {
      {"", false},
      {"+1", false},
      {"-1", false},
      {"0000000000000000000000000000007", true},    // 31 characters
      {"00000000000000000000000000000007", false},  // 32 characters
      {"7 ", false},
      {"0x7", false},
      {"7a", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    const GuardedText text(row.source);
    const JsonToken token{kP, 0, static_cast<std::int32_t>(row.source.size()), 0, -1};
    std::uint32_t value = 0;
    EXPECT_EQ(json_get_unsigned({text.view(), &token, 1}, 0, value), row.valid);
    if (row.valid) {
      EXPECT_EQ(value, 7U);
    }
  }
}

TEST(JsonGetUnsigned, BadIndices) {
  const ParsedText parsed("5");
  ASSERT_TRUE(parsed.ok());
  std::uint32_t value = 0;
  for (const int index : {-1, 1, 1000}) {
    EXPECT_FALSE(json_get_unsigned(parsed.doc(), index, value)) << index;
  }
}

TEST(JsonGetFloat, NumbersThatAFloatHolds) {
  const struct {
    std::string source;
    bool valid;
    float value;
  } rows[] = {
      {"0", true, 0.0F},
      {"-0", true, -0.0F},
      {"1", true, 1.0F},
      {"-1.5", true, -1.5F},
      {"0.1", true, 0.1F},
      {"1e3", true, 1000.0F},
      {"25E-2", true, 0.25F},
      {"16777217", true, 16777216.0F},
      {"3.402823466e38", true, 3.402823466e38F},
      {"-3.402823466e38", true, -3.402823466e38F},
      {"340282346600000000000000000000000000000", true, 3.402823466e38F},
      {"3.402823467e38", false, 0},
      {"-3.402823467e38", false, 0},
      {"3.5e38", false, 0},
      {"1e39", false, 0},
      {"1e308", false, 0},
      {"1e309", false, 0},
      {"-1e309", false, 0},
      {"1e99999", false, 0},
      {"1.17549435e-38", true, 1.17549435e-38F},
      {"1e-45", true, 1e-45F},
      {"1e-60", true, 0.0F},
      {"1e-400", false, 0},
      {"0e999", true, 0.0F},
      {"0." + std::string(60, '0') + "1", true, 0.0F},  // 63 characters
      {"0." + std::string(61, '0') + "1", false, 0},    // 64 characters
      {"1." + std::string(61, '0'), true, 1.0F},        // 63 characters
      {"1." + std::string(62, '0'), false, 0},          // 64 characters
      {"true", false, 0},
      {"false", false, 0},
      {"null", false, 0},
      {"\"1\"", false, 0},
      {"[1]", false, 0},
      {"{}", false, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    const ParsedText parsed(row.source);
    ASSERT_TRUE(parsed.ok());
    float value = 77.0F;
    ASSERT_EQ(json_get_float(parsed.doc(), 0, value), row.valid);
    if (row.valid) {
      EXPECT_EQ(value, row.value);
    }
  }
}

std::string random_decimal(std::mt19937& random) {
  const auto below = [&](unsigned limit) { return static_cast<unsigned>(random()) % limit; };
  std::string text = below(2) != 0 ? "-" : "";
  const unsigned whole = 1 + below(18);
  text += static_cast<char>('0' + below(whole == 1 ? 10 : 9) + (whole == 1 ? 0 : 1));
  for (unsigned i = 1; i < whole; ++i) text += static_cast<char>('0' + below(10));
  if (below(4) == 0) return text;
  text += '.';
  const bool is_small = below(2) != 0;
  for (unsigned i = 1 + below(26); i > 0; --i) {
    text += is_small && i > 9 ? '0' : static_cast<char>('0' + below(10));
  }
  return text;
}

// Short decimals are converted in a way of their own; there is one right result for each text.
::testing::AssertionResult as_the_c_library(const std::string& text) {
  const ParsedText parsed(text);
  float value = 0;
  const auto expected = static_cast<float>(std::strtod(text.c_str(), nullptr));
  if (json_get_float(parsed.doc(), 0, value) &&
      std::bit_cast<std::uint32_t>(value) == std::bit_cast<std::uint32_t>(expected)) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << text << ": " << value << ", not " << expected;
}

TEST(JsonGetFloat, RoundsAsTheCLibraryDoes) {
  std::mt19937 random(20260101);
  for (int i = 0; i < 20000; ++i) ASSERT_TRUE(as_the_c_library(random_decimal(random)));
}

TEST(JsonGetFloat, FractionsOfEveryLength) {
  for (std::size_t zeros = 0; zeros <= 44; ++zeros) {
    for (const std::string_view begin : {"0."sv, "-0."sv, "3."sv}) {
      EXPECT_TRUE(as_the_c_library(std::string(begin) + std::string(zeros, '0') + "7"));
    }
  }
}

// As doubles, these are the middle of two floats or next to it: a quotient of numbers that were
// rounded before lies on the other side.
TEST(JsonGetFloat, DigitsAroundTheMiddleOfTwoFloats) {
  for (const std::string_view text :
       {"1.4954350590705873"sv, "1.9014274477958678"sv, "26.829577445983885"sv,
        "101.60515975952147"sv, "2593.4449462890627"sv, "-3015.1583251953126"sv}) {
    EXPECT_TRUE(as_the_c_library(std::string(text)));
  }
}

// Primitives that the parser never makes.
TEST(JsonGetFloat, HandMadePrimitives) {
  const struct {
    std::string source;
    bool valid;
  } rows[] = {
      {"", false},
      {"-", false},
      {".", false},
      {"-.", false},
      {std::string(62, '0') + "7", true},
      {std::string(63, '0') + "7", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    const GuardedText text(row.source);
    const JsonToken token{kP, 0, static_cast<std::int32_t>(row.source.size()), 0, -1};
    float value = 0;
    EXPECT_EQ(json_get_float({text.view(), &token, 1}, 0, value), row.valid);
    if (row.valid) {
      EXPECT_EQ(value, 7.0F);
    }
  }
}

TEST(JsonGetFloat, WordsThatAConversionRoutineMightTake) {
  for (const std::string_view source : {"inf"sv, "nan"sv, "infinity"sv, "1x"sv, "1 "sv, ""sv}) {
    SCOPED_TRACE(source);
    const GuardedText text(source);
    const JsonToken token{kP, 0, static_cast<std::int32_t>(source.size()), 0, -1};
    float value = 0;
    EXPECT_FALSE(json_get_float({text.view(), &token, 1}, 0, value));
  }
  const ParsedText parsed("5");
  ASSERT_TRUE(parsed.ok());
  float value = 0;
  for (const int index : {-1, 1, 1000}) {
    EXPECT_FALSE(json_get_float(parsed.doc(), index, value)) << index;
  }
}

}  // namespace
}  // namespace kova

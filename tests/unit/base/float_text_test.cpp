// Numbers as text, in the C locale and in one with another decimal point.
#include "base/float_text.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <limits>
#include <string>

#include "support/decimal_comma.h"

namespace kova {
namespace {

std::string written(float number) {
  char text[64] = "";
  TextOut out(text);
  EXPECT_TRUE(append_float(out, number));
  return text;
}

void expect_numbers() {
  EXPECT_EQ(written(0), "0");
  EXPECT_EQ(written(-3), "-3");
  EXPECT_EQ(written(0.1F), "0.100000001");
  EXPECT_EQ(written(2.5F), "2.5");
  EXPECT_EQ(written(-1.23456789e-30F), "-1.23456793e-30");
  EXPECT_EQ(written(std::numeric_limits<float>::max()), "3.40282347e+38");
  EXPECT_EQ(written(std::numeric_limits<float>::denorm_min()), "1.40129846e-45");
  double number = 0;
  EXPECT_TRUE(read_float("1.25", number));
  EXPECT_EQ(number, 1.25);
  EXPECT_TRUE(read_float("-0.5e-3", number));
  EXPECT_EQ(number, -0.5e-3);
  EXPECT_TRUE(read_float("12345678901234567890.5", number));
  EXPECT_EQ(number, 12345678901234567890.5);
  EXPECT_TRUE(read_float("1e400", number));
  EXPECT_TRUE(std::isinf(number));
  for (const char* text : {"", "1,25", "1.2.3", "x", "1.5x", "1 "}) {
    EXPECT_FALSE(read_float(text, number)) << text;
  }
}

TEST(FloatText, InTheCLocale) {
  expect_numbers();
}

TEST(FloatText, InALocaleWithADecimalComma) {
  const testing::DecimalComma comma;
  ASSERT_TRUE(comma.is_set());
  EXPECT_STREQ(std::localeconv()->decimal_point, ",");
  expect_numbers();
}

TEST(FloatText, ALengthOf63CharactersIsTheLast) {
  double number = 0;
  EXPECT_TRUE(read_float("1." + std::string(61, '0'), number));
  EXPECT_EQ(number, 1);
  EXPECT_FALSE(read_float("1." + std::string(62, '0'), number));
}

TEST(FloatText, WhatDoesNotFitIsNotAdded) {
  char text[6];
  TextOut out(text);
  EXPECT_TRUE(out.copy("ab"));
  EXPECT_FALSE(append_float(out, 1.25F));
  EXPECT_STREQ(text, "ab");
  EXPECT_TRUE(append_float(out, 1.5F));
  EXPECT_STREQ(text, "ab1.5");
}

}  // namespace
}  // namespace kova

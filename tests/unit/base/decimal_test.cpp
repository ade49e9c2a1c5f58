#include "base/decimal.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedText;

struct Row {
  const char* text;
  std::uint64_t value;
};

class WholeDecimal : public ::testing::TestWithParam<Row> {};

TEST_P(WholeDecimal, Value) {
  EXPECT_EQ(whole_decimal(GuardedText(GetParam().text).view()), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, WholeDecimal,
    ::testing::Values(Row{"0", 0}, Row{"7", 7}, Row{"007", 7}, Row{"08", 8}, Row{"65535", 65535},
                      Row{"4294967301", 4294967301}, Row{"999999999999999999", 999999999999999999},
                      Row{"1000000000000000000", 1000000000000000000},
                      Row{"1000000000000000001", 1000000000000000000},
                      Row{"18446744073709551617", 1000000000000000000},
                      Row{"9999999999999999999999999999999", 1000000000000000000},
                      Row{"00000000000000000000000000000042", 42}));

class NoWholeDecimal : public ::testing::TestWithParam<std::string_view> {};

TEST_P(NoWholeDecimal, HasNoValue) {
  EXPECT_EQ(whole_decimal(GuardedText(GetParam()).view()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Texts, NoWholeDecimal,
                         ::testing::Values("", " ", "-", "+", "abc", "+7", "-7", "-0", " 7", "7 ",
                                           "\t7", "12abc", "x3", "1 2", "3.9", "1e3", "0x3", "1,2",
                                           "99999999999999999999x", "\xD9\xA7",
                                           std::string_view("7\0", 2)));

}  // namespace
}  // namespace kova

#include "base/decimal.h"

#include <gtest/gtest.h>

#include <string>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedText;

struct Row {
  const char* text;
  std::int64_t value;
};

class LeadingInteger : public ::testing::TestWithParam<Row> {};

TEST_P(LeadingInteger, Value) {
  EXPECT_EQ(leading_integer(GuardedText(GetParam().text).view()), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, LeadingInteger,
    ::testing::Values(Row{"", 0}, Row{" ", 0}, Row{"-", 0}, Row{"+", 0}, Row{"abc", 0},
                      Row{"--5", 0}, Row{"+-5", 0}, Row{"- 5", 0}, Row{"0", 0}, Row{"-0", 0},
                      Row{"7", 7}, Row{"+7", 7}, Row{"-7", -7}, Row{" \t\n\v\f\r7", 7},
                      Row{"007", 7}, Row{"08", 8}, Row{"12abc", 12}, Row{"1 2", 1},
                      Row{"65535", 65535}, Row{"4294967301", 4294967301},
                      Row{"-4294967301", -4294967301},
                      Row{"999999999999999999", 999999999999999999},
                      Row{"1000000000000000000", 1000000000000000000},
                      Row{"1000000000000000001", 1000000000000000000},
                      Row{"18446744073709551617", 1000000000000000000},
                      Row{"-18446744073709551617", -1000000000000000000},
                      Row{"9999999999999999999999999999999", 1000000000000000000},
                      Row{"00000000000000000000000000000042", 42}));

}  // namespace
}  // namespace kova

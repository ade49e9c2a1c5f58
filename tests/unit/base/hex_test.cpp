#include "base/hex.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedText;

TEST(WriteHex, EveryByteIsTwoLowerCaseDigits) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (unsigned value = 0; value < 256; ++value) {
    const std::uint8_t bytes[1] = {static_cast<std::uint8_t>(value)};
    char text[3] = {'x', 'x', 'x'};
    write_hex(bytes, text);
    EXPECT_EQ(text[0], kDigits[value / 16]) << value;
    EXPECT_EQ(text[1], kDigits[value % 16]) << value;
    EXPECT_EQ(text[2], '\0') << value;
  }
}

TEST(WriteHex, KeepsTheOrderOfTheBytes) {
  const std::uint8_t bytes[] = {0x01, 0x23, 0xAB, 0xCD, 0xEF, 0x00, 0xFF};
  char text[15];
  std::memset(text, 'x', sizeof text);
  write_hex(bytes, text);
  EXPECT_EQ(std::string(text, sizeof text), std::string("0123abcdef00ff\0", 15));
}

TEST(IsHex, DigitsOfEitherCase) {
  for (unsigned value = 0; value < 256; ++value) {
    const char c = static_cast<char>(value);
    const bool digit = value != 0 && std::strchr("0123456789abcdefABCDEF", c) != nullptr;
    EXPECT_EQ(is_hex(GuardedText(std::string_view(&c, 1)).view(), 1), digit) << value;
    const std::string last = "0" + std::string(1, c);
    EXPECT_EQ(is_hex(GuardedText(last).view(), 2), digit) << value;
  }
}

TEST(IsHex, ExactlySoManyDigits) {
  EXPECT_TRUE(is_hex("", 0));
  EXPECT_FALSE(is_hex("", 1));
  for (std::size_t length = 0; length < 70; ++length) {
    const GuardedText text(std::string(length, 'a'));
    EXPECT_EQ(is_hex(text.view(), 64), length == 64) << length;
  }
}

}  // namespace
}  // namespace kova

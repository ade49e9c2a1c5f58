#include "base/secret.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedText;

constexpr char kSecret[] = "correct horse battery staple";

TEST(Wipe, OverwritesExactlyTheBytesGiven) {
  char buffer[] = "0123456789";
  wipe(buffer + 2, 5);
  EXPECT_EQ(std::string(buffer, 10), std::string("01\0\0\0\0\0"
                                                 "789",
                                                 10));
  wipe(buffer, 0);
  EXPECT_EQ(buffer[0], '0');
}

// A record that holds a secret and wipes it as its last act. The compiler may drop plain stores to
// an object whose life ends, so the bytes that stay in the storage show whether the wipe is real.
struct SecretRecord {
  SecretRecord() : guard(text) { std::memcpy(text, kSecret, sizeof kSecret); }
  char text[64] = {};
  WipeGuard guard;
};

TEST(WipeGuard, LeavesNothingInTheStorageOfADeadObject) {
  alignas(SecretRecord) unsigned char storage[sizeof(SecretRecord)];
  std::memset(storage, 'x', sizeof storage);
  auto* record = new (storage) SecretRecord;
  ASSERT_STREQ(record->text, kSecret);
  record->~SecretRecord();
  const volatile unsigned char* bytes = storage;
  for (std::size_t i = 0; i < sizeof(SecretRecord::text); ++i) {
    ASSERT_EQ(bytes[i], 0) << "byte " << i;
  }
}

bool leave_early(char (&text)[8], bool early) {
  const WipeGuard guard(text);
  if (early) return false;
  return text[0] != '\0';
}

TEST(WipeGuard, WipesTheWholeArrayOnEveryWayOut) {
  for (const bool early : {true, false}) {
    char text[8];
    std::memset(text, 's', sizeof text);
    EXPECT_EQ(leave_early(text, early), !early);
    EXPECT_EQ(std::string(text, sizeof text), std::string(8, '\0'));
  }
}

TEST(WipeGuard, WipesBytesOfEveryKind) {
  std::uint8_t bytes[33];
  std::memset(bytes, 0xA5, sizeof bytes);
  unsigned char others[5] = {1, 2, 3, 4, 5};
  {
    const WipeGuard guard(bytes);
    const WipeGuard other_guard(others);
    ASSERT_EQ(bytes[32], 0xA5);
  }
  for (const std::uint8_t byte : bytes) EXPECT_EQ(byte, 0);
  for (const unsigned char byte : others) EXPECT_EQ(byte, 0);
}

// A terminator early in the array does not end the wiping.
TEST(WipeGuard, WipesWhatStandsBehindATerminator) {
  char text[16] = "ab";
  std::memcpy(text + 8, "secret", 6);
  { const WipeGuard guard(text); }
  EXPECT_EQ(std::string(text, sizeof text), std::string(16, '\0'));
}

TEST(EqualIgnoringCaseConstantTime, ComparesEveryPairOfBytes) {
  for (int left = 0; left < 256; ++left) {
    for (int right = 0; right < 256; ++right) {
      const auto fold = [](int byte) { return byte >= 'A' && byte <= 'Z' ? byte + 32 : byte; };
      const char a = static_cast<char>(left);
      const char b = static_cast<char>(right);
      ASSERT_EQ(equal_ignoring_case_constant_time({&a, 1}, {&b, 1}), fold(left) == fold(right))
          << left << " " << right;
    }
  }
}

TEST(EqualIgnoringCaseConstantTime, SeesADifferenceAtEveryPlace) {
  const std::string digits = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
  std::string upper = digits;
  for (char& c : upper) c = static_cast<char>(std::toupper(c));
  EXPECT_TRUE(
      equal_ignoring_case_constant_time(GuardedText(digits).view(), GuardedText(upper).view()));
  for (std::size_t i = 0; i < digits.size(); ++i) {
    std::string other = upper;
    other[i] = other[i] == '7' ? '8' : '7';
    EXPECT_FALSE(equal_ignoring_case_constant_time(digits, other)) << i;
    EXPECT_FALSE(equal_ignoring_case_constant_time(other, digits)) << i;
  }
  // Two differences do not make up for each other.
  std::string swapped = digits;
  std::swap(swapped[0], swapped[1]);
  EXPECT_FALSE(equal_ignoring_case_constant_time(digits, swapped));
}

TEST(EqualIgnoringCaseConstantTime, TextsOfOneLengthOnly) {
  EXPECT_TRUE(equal_ignoring_case_constant_time("", ""));
  const std::string longest(65, 'a');
  for (std::size_t left = 0; left <= longest.size(); ++left) {
    for (std::size_t right = 0; right <= longest.size(); ++right) {
      const GuardedText a(longest.substr(0, left));
      const GuardedText b(longest.substr(0, right));
      ASSERT_EQ(equal_ignoring_case_constant_time(a.view(), b.view()), left == right);
    }
  }
  // What a shorter text lacks is not a NUL.
  EXPECT_FALSE(equal_ignoring_case_constant_time("a", std::string_view("a\0", 2)));
  EXPECT_FALSE(equal_ignoring_case_constant_time(std::string_view("\0", 1), ""));
}

TEST(EqualConstantTime, EveryPairOfBytes) {
  for (int left = 0; left < 256; ++left) {
    for (int right = 0; right < 256; ++right) {
      const char a = static_cast<char>(left);
      const char b = static_cast<char>(right);
      ASSERT_EQ(equal_constant_time({&a, 1}, {&b, 1}), left == right) << left << " " << right;
    }
  }
}

TEST(EqualConstantTime, TextsOfOneLengthOnly) {
  const std::string longest(300, 'a');
  for (std::size_t left = 0; left <= longest.size(); ++left) {
    for (const std::size_t right : {std::size_t{0}, std::size_t{1}, std::size_t{32}, left}) {
      const GuardedText a(longest.substr(0, left));
      const GuardedText b(longest.substr(0, right));
      ASSERT_EQ(equal_constant_time(a.view(), b.view()), left == right);
    }
  }
  EXPECT_FALSE(equal_constant_time("a", std::string_view("a\0", 2)));
  EXPECT_FALSE(equal_constant_time("a", std::string("a") + std::string(256, '\0')));
}

TEST(EqualConstantTime, SeesADifferenceAtEveryPlace) {
  const std::string text(64, 'a');
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::string other = text;
    other[i] = 'A';
    EXPECT_FALSE(equal_constant_time(text, other)) << i;
  }
}

}  // namespace
}  // namespace kova

#include "base/text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedBuffer;

TEST(TextOut, ConstructionWritesNothing) {
  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  const TextOut out(buffer);
  EXPECT_EQ(std::string(buffer, sizeof buffer), "xxxxxxxx");
  EXPECT_EQ(out.capacity(), 8U);
  EXPECT_EQ(out.length(), 0U);
  EXPECT_EQ(out.view(), "");
}

TEST(TextOut, CopyFitsUpToTheTerminator) {
  for (std::size_t length = 0; length <= 10; ++length) {
    SCOPED_TRACE(length);
    const GuardedBuffer buffer(9);
    std::memset(buffer.data(), 'x', buffer.size());
    TextOut out(buffer.data(), buffer.size());
    const std::string text(length, 'a');
    const bool fits = length <= 8;
    EXPECT_EQ(out.copy(text), fits);
    EXPECT_EQ(out.view(), fits ? text : "");
    EXPECT_STREQ(buffer.data(), fits ? text.c_str() : "");
  }
}

TEST(TextOut, CopyReplacesALongerText) {
  char buffer[16];
  TextOut out(buffer);
  ASSERT_TRUE(out.copy("a longer text"));
  ASSERT_TRUE(out.copy("short"));
  EXPECT_STREQ(buffer, "short");
  EXPECT_EQ(out.length(), 5U);
  EXPECT_FALSE(out.copy("sixteen bytes ..."));
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(out.length(), 0U);
}

TEST(TextOut, CopyTakesAnEmptyViewWithoutData) {
  char buffer[4] = "abc";
  TextOut out(buffer);
  EXPECT_TRUE(out.copy(std::string_view()));
  EXPECT_STREQ(buffer, "");
  EXPECT_TRUE(out.append(std::string_view()));
  out.copy_cut(std::string_view());
  EXPECT_STREQ(buffer, "");
}

TEST(TextOut, CopyKeepsAnEmbeddedNul) {
  char buffer[4];
  TextOut out(buffer);
  EXPECT_TRUE(out.copy(std::string_view("a\0b", 3)));
  EXPECT_EQ(std::string(buffer, 4), std::string("a\0b\0", 4));
  EXPECT_EQ(out.length(), 3U);
}

TEST(TextOut, CopyCutKeepsWhatFits) {
  for (std::size_t length = 0; length <= 10; ++length) {
    SCOPED_TRACE(length);
    const GuardedBuffer buffer(9);
    TextOut out(buffer.data(), buffer.size());
    const std::string text = std::string("0123456789").substr(0, length);
    out.copy_cut(text);
    EXPECT_EQ(out.view(), text.substr(0, 8));
    EXPECT_STREQ(buffer.data(), text.substr(0, 8).c_str());
  }
}

TEST(TextOut, AppendAddsAllOrNothing) {
  for (std::size_t length = 0; length <= 6; ++length) {
    SCOPED_TRACE(length);
    const GuardedBuffer buffer(9);
    TextOut out(buffer.data(), buffer.size());
    ASSERT_TRUE(out.copy("abcd"));
    const std::string more(length, 'z');
    const bool fits = length <= 4;
    EXPECT_EQ(out.append(more), fits);
    EXPECT_EQ(out.view(), fits ? "abcd" + more : "abcd");
    EXPECT_STREQ(buffer.data(), (fits ? "abcd" + more : "abcd").c_str());
  }
}

TEST(TextOut, AppendsSingleBytesUntilFull) {
  const GuardedBuffer buffer(4);
  TextOut out(buffer.data(), buffer.size());
  EXPECT_TRUE(out.append('a'));
  EXPECT_TRUE(out.append('\0'));
  EXPECT_TRUE(out.append('c'));
  EXPECT_FALSE(out.append('d'));
  EXPECT_EQ(std::string(buffer.data(), 4), std::string("a\0c\0", 4));
}

TEST(TextOut, FormatAddsAllOrNothing) {
  for (std::size_t digits = 1; digits <= 6; ++digits) {
    SCOPED_TRACE(digits);
    const GuardedBuffer buffer(9);
    TextOut out(buffer.data(), buffer.size());
    ASSERT_TRUE(out.copy("n="));
    const std::string number(digits, '7');
    const bool fits = digits <= 5;
    EXPECT_EQ(out.format("%s;", number.c_str()), fits);
    EXPECT_EQ(out.view(), fits ? "n=" + number + ";" : "n=");
    EXPECT_STREQ(buffer.data(), (fits ? "n=" + number + ";" : "n=").c_str());
  }
}

TEST(TextOut, FormatExactlyFillingTheBufferHasNoRoomForTheTerminator) {
  const GuardedBuffer buffer(4);
  TextOut out(buffer.data(), buffer.size());
  EXPECT_FALSE(out.format("%u", 1234U));
  EXPECT_STREQ(buffer.data(), "");
  EXPECT_TRUE(out.format("%u", 123U));
  EXPECT_STREQ(buffer.data(), "123");
}

TEST(TextOut, FormatPrintsTheSameNumbersOnEveryTarget) {
  char buffer[128];
  TextOut out(buffer);
  EXPECT_TRUE(out.format("%llu %lld %d %lu %u %04x", 18446744073709551615ULL,
                         -9223372036854775807LL - 1, -32700, 4294967295UL, 4294967295U, 0x1fU));
  EXPECT_STREQ(buffer,
               "18446744073709551615 -9223372036854775808 -32700 4294967295 4294967295 001f");
  char floating[128];
  TextOut numbers(floating);
  EXPECT_TRUE(numbers.format("%.9g %.9g %.9g", 1e-7, 0.1, 3.402823466e38));
  EXPECT_STREQ(floating, "1e-07 0.1 3.40282347e+38");
}

TEST(TextOut, CapacityOneHoldsOnlyTheEmptyText) {
  const GuardedBuffer buffer(1);
  buffer.data()[0] = 'x';
  TextOut out(buffer.data(), 1);
  EXPECT_TRUE(out.copy(""));
  EXPECT_STREQ(buffer.data(), "");
  EXPECT_FALSE(out.copy("a"));
  EXPECT_FALSE(out.append('a'));
  EXPECT_FALSE(out.format("%d", 1));
  out.copy_cut("abc");
  EXPECT_STREQ(buffer.data(), "");
}

TEST(TextOut, AppendsNumbersAllOrNothing) {
  const struct {
    std::uint64_t number;
    std::string_view digits;
  } rows[] = {{0, "0"},
              {7, "7"},
              {10, "10"},
              {99, "99"},
              {100, "100"},
              {4294967295ULL, "4294967295"},
              {4294967296ULL, "4294967296"},
              {9999999999999999999ULL, "9999999999999999999"},
              {10000000000000000000ULL, "10000000000000000000"},
              {18446744073709551615ULL, "18446744073709551615"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.digits);
    const GuardedBuffer exact(row.digits.size() + 3);
    TextOut out(exact.data(), exact.size());
    ASSERT_TRUE(out.append("n="));
    EXPECT_TRUE(out.append_number(row.number));
    EXPECT_EQ(out.view(), "n=" + std::string(row.digits));
    EXPECT_STREQ(exact.data(), ("n=" + std::string(row.digits)).c_str());
    const GuardedBuffer small(row.digits.size() + 2);
    TextOut cut(small.data(), small.size());
    ASSERT_TRUE(cut.append("n="));
    EXPECT_FALSE(cut.append_number(row.number));
    EXPECT_STREQ(small.data(), "n=");
  }
}

TEST(Slice, Table) {
  const std::string_view text = "abcdef";
  const struct {
    std::size_t begin, count;
    std::string_view part;
  } rows[] = {
      {0, 6, "abcdef"},
      {0, 7, "abcdef"},
      {0, 0, ""},
      {2, 3, "cde"},
      {5, 1, "f"},
      {5, 9, "f"},
      {6, 1, ""},
      {7, 1, ""},
      {std::string_view::npos, 1, ""},
      {1, std::string_view::npos, "bcdef"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(slice(text, row.begin, row.count), row.part) << row.begin << ", " << row.count;
  }
  EXPECT_EQ(slice(text, 3), "def");
  EXPECT_EQ(slice("", 0), "");
  EXPECT_EQ(slice(std::string_view(), 0, 3), "");
}

TEST(Refuse, WritesTheMessageAndAnswersFalse) {
  char message[32];
  EXPECT_FALSE(refuse(message, "table is not allowed"));
  EXPECT_STREQ(message, "table is not allowed");
}

}  // namespace
}  // namespace kova

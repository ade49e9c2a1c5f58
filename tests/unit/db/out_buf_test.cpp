// The growing text: growth, limit, missing memory, and escaping.
#include "db/out_buf.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/allocation_failure.h"
#include "support/guard_page.h"

namespace kova::testing {
namespace {

constexpr std::size_t kTextLimit = 1048575;

std::string_view view_of(const OutBuf& out) {
  return {out.text(), out.length()};
}

std::string escaped(std::string_view text) {
  const GuardedText guarded(text);
  OutBuf out;
  EXPECT_TRUE(out.append_escaped(guarded.view()));
  return std::string(view_of(out));
}

TEST(OutBuf, IsEmptyAtFirst) {
  const OutBuf out;
  EXPECT_EQ(out.text(), nullptr);
  EXPECT_EQ(out.length(), 0U);
  EXPECT_EQ(out.capacity(), 0U);
}

TEST(OutBuf, TerminatesAfterEachAppend) {
  OutBuf out;
  EXPECT_TRUE(out.append(""));
  EXPECT_STREQ(out.text(), "");
  EXPECT_TRUE(out.append("ab"));
  EXPECT_STREQ(out.text(), "ab");
  EXPECT_TRUE(out.append(std::string_view("c\0d", 3)));
  EXPECT_EQ(view_of(out), std::string_view("abc\0d", 5));
  EXPECT_EQ(out.text()[5], '\0');
}

TEST(OutBuf, DoublesFrom4096) {
  struct Row {
    std::size_t length;
    std::uint32_t capacity;
  };
  constexpr Row kRows[] = {
      {0, 4096},         {1, 4096},          {4095, 4096},         {4096, 8192},
      {8191, 8192},      {8192, 16384},      {20000, 32768},       {524287, 524288},
      {524288, 1048576}, {1000000, 1048576}, {kTextLimit, 1048576}};
  for (const Row& row : kRows) {
    OutBuf at_once;
    ASSERT_TRUE(at_once.append(std::string(row.length, 'x')));
    EXPECT_EQ(at_once.capacity(), row.capacity) << row.length;
    EXPECT_EQ(at_once.length(), row.length);
    OutBuf in_two;
    ASSERT_TRUE(in_two.append(std::string(row.length / 2, 'x')));
    ASSERT_TRUE(in_two.append(std::string(row.length - row.length / 2, 'x')));
    EXPECT_EQ(in_two.capacity(), row.capacity) << row.length;
  }
}

TEST(OutBuf, GrowsRarely) {
  OutBuf out;
  const unsigned long before = allocation_count();
  for (std::size_t i = 0; i < kTextLimit; ++i) ASSERT_TRUE(out.append("x"));
  // 4,096 doubled eight times.
  EXPECT_EQ(allocation_count() - before, 9U);
}

TEST(OutBuf, HoldsAtMost1048575Bytes) {
  OutBuf out;
  EXPECT_FALSE(out.append(std::string(kTextLimit + 1, 'x')));
  EXPECT_EQ(out.length(), 0U);
  ASSERT_TRUE(out.append(std::string(kTextLimit - 1, 'x')));
  EXPECT_FALSE(out.append("yz"));
  EXPECT_EQ(out.length(), kTextLimit - 1);
  EXPECT_EQ(out.text()[kTextLimit - 1], '\0');
  EXPECT_TRUE(out.append("y"));
  EXPECT_FALSE(out.append("z"));
  EXPECT_TRUE(out.append(""));
  EXPECT_EQ(out.length(), kTextLimit);
  EXPECT_EQ(std::string_view(out.text()).size(), kTextLimit);
}

TEST(OutBuf, KeepsItsTextWithoutMemory) {
  OutBuf out;
  {
    const AllocationFailure failure(1);
    EXPECT_FALSE(out.append("a"));
    EXPECT_TRUE(AllocationFailure::happened());
  }
  EXPECT_EQ(out.text(), nullptr);
  ASSERT_TRUE(out.append("a"));
  const std::string more(5000, 'b');
  {
    const AllocationFailure failure(1);
    EXPECT_FALSE(out.append(more));
  }
  EXPECT_EQ(view_of(out), "a");
  EXPECT_TRUE(out.append(more));
  EXPECT_EQ(view_of(out), "a" + more);
}

TEST(OutBuf, HandsItsTextOver) {
  OutBuf out;
  ASSERT_TRUE(out.append("abc"));
  char* text = out.release();
  EXPECT_STREQ(text, "abc");
  std::free(text);
  EXPECT_EQ(out.text(), nullptr);
  EXPECT_EQ(out.length(), 0U);
  EXPECT_EQ(out.capacity(), 0U);
  EXPECT_EQ(out.release(), nullptr);
  EXPECT_TRUE(out.append("x"));
  EXPECT_EQ(view_of(out), "x");
}

TEST(OutBuf, FormatsAtMost127Characters) {
  OutBuf out;
  EXPECT_TRUE(out.append_formatted("%u-%s", 7U, "x"));
  EXPECT_EQ(view_of(out), "7-x");
  const std::string longest(127, 'f');
  EXPECT_TRUE(out.append_formatted("%s", longest.c_str()));
  EXPECT_EQ(view_of(out), "7-x" + longest);
  EXPECT_FALSE(out.append_formatted("%s", (longest + "f").c_str()));
  EXPECT_EQ(view_of(out), "7-x" + longest);
}

TEST(OutBuf, FormattingHeedsTheLimit) {
  OutBuf out;
  ASSERT_TRUE(out.append(std::string(kTextLimit - 2, 'x')));
  EXPECT_FALSE(out.append_formatted("%d", 123));
  EXPECT_TRUE(out.append_formatted("%d", 12));
}

TEST(OutBuf, EscapesEachByteInItsWay) {
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    std::string expected(1, c);
    if (byte < 0x20) {
      char code[8];
      std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(byte));
      expected = code;
    }
    if (c == '\n') expected = "\\n";
    if (c == '\r') expected = "\\r";
    if (c == '\t') expected = "\\t";
    if (c == '"') expected = "\\\"";
    if (c == '\\') expected = "\\\\";
    EXPECT_EQ(escaped(std::string_view(&c, 1)), "\"" + expected + "\"") << byte;
  }
}

TEST(OutBuf, EscapesWholeTexts) {
  EXPECT_EQ(escaped(""), "\"\"");
  EXPECT_EQ(escaped("plain"), "\"plain\"");
  EXPECT_EQ(escaped("\"\\\n\x01\xC3"), "\"\\\"\\\\\\n\\u0001\xC3\"");
  EXPECT_EQ(escaped("\b\f\x1F"), "\"\\u0008\\u000c\\u001f\"");
  EXPECT_EQ(escaped("\x7F/\xE2\x82\xAC\xFF"), "\"\x7F/\xE2\x82\xAC\xFF\"");
}

// An escape at every place of texts of every small size, flush against unreadable memory.
TEST(OutBuf, EscapesAtEveryPlace) {
  for (std::size_t size = 1; size <= 70; ++size) {
    for (std::size_t at = 0; at < size; ++at) {
      std::string text(size, 'p');
      text[at] = '\n';
      ASSERT_EQ(escaped(text),
                "\"" + std::string(at, 'p') + "\\n" + std::string(size - at - 1, 'p') + "\"");
    }
  }
}

TEST(OutBuf, EscapesTheFirst16384Bytes) {
  const std::string limit(16384, 'p');
  EXPECT_EQ(escaped(limit), "\"" + limit + "\"");
  EXPECT_EQ(escaped(limit + "q"), "\"" + limit + "\"");
  EXPECT_EQ(escaped(std::string(100000, 'p')), "\"" + limit + "\"");
  // The limit counts bytes before escaping.
  EXPECT_EQ(escaped(std::string(16385, '"')).size(), 2 + 2 * 16384U);
  EXPECT_EQ(escaped(std::string(16385, '\x01')).size(), 2 + 6 * 16384U);
  EXPECT_EQ(escaped(std::string(16383, 'p') + "\n\n"), "\"" + std::string(16383, 'p') + "\\n\"");
  // It may cut a character in two.
  EXPECT_EQ(escaped(std::string(16383, 'p') + "\xC3\xA9"),
            "\"" + std::string(16383, 'p') + "\xC3\"");
}

TEST(OutBuf, EscapingHeedsTheLimit) {
  const auto escapes_after = [](std::size_t length, std::string_view text) {
    OutBuf out;
    EXPECT_TRUE(out.append(std::string(length, 'x')));
    return out.append_escaped(text);
  };
  EXPECT_TRUE(escapes_after(kTextLimit - 2, ""));
  EXPECT_FALSE(escapes_after(kTextLimit - 1, ""));
  EXPECT_FALSE(escapes_after(kTextLimit, ""));
  EXPECT_TRUE(escapes_after(kTextLimit - 4, "ab"));
  EXPECT_FALSE(escapes_after(kTextLimit - 3, "ab"));
  EXPECT_TRUE(escapes_after(kTextLimit - 4, "\n"));
  EXPECT_FALSE(escapes_after(kTextLimit - 3, "\n"));
  EXPECT_TRUE(escapes_after(kTextLimit - 8, "\x02"));
  EXPECT_FALSE(escapes_after(kTextLimit - 7, "\x02"));
}

TEST(OutBuf, EscapingFailsWithoutMemory) {
  OutBuf out;
  const AllocationFailure failure(1);
  EXPECT_FALSE(out.append_escaped("x"));
}

}  // namespace
}  // namespace kova::testing

// Cleaning a text for the audit record.
#include <gtest/gtest.h>

#include <string>

#include "audit/audit.h"
#include "support/guard_page.h"

namespace kova::testing {
namespace {

std::string cleaned(std::string_view source, std::size_t capacity) {
  const GuardedText text(source);
  const GuardedBuffer buffer(capacity);
  clean_audit_text(text.view(), TextOut(buffer.data(), capacity));
  return buffer.data();
}

TEST(CleanAuditText, EscapesQuotesAndBackslashesAndReplacesTheRest) {
  struct Row {
    std::string_view source;
    std::string_view text;
  };
  constexpr Row kRows[] = {
      {"", ""},
      {"plain text, 9!", "plain text, 9!"},
      {"a\"b", "a\\\"b"},
      {"a\\b", "a\\\\b"},
      {"\"\"", "\\\"\\\""},
      {"a\nb\rc\td", "a_b_c_d"},
      {"\x01\x1F\x7F", "___"},
      {" ~", " ~"},
      {"\xC3\xA9", "__"},
      {"\xE2\x82\xAC", "___"},
      {"\x80\xFF", "__"},
      {"/<>&'", "/<>&'"},
      {std::string_view("a\0b", 3), "a_b"},
  };
  for (const Row& row : kRows) EXPECT_EQ(cleaned(row.source, 64), row.text) << row.source;
}

TEST(CleanAuditText, KeepsExactlyThePrintableAsciiBytes) {
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    std::string expected = byte >= 0x20 && byte <= 0x7E ? std::string(1, c) : "_";
    if (c == '"' || c == '\\') expected = std::string("\\") + c;
    EXPECT_EQ(cleaned(std::string_view(&c, 1), 16), expected) << byte;
  }
}

// Plain text ends two bytes before the end of its room; only an escape may use one more.
TEST(CleanAuditText, StopsAtTheCapacityMinus2) {
  for (const std::size_t capacity : {48U, 96U, 128U, 160U}) {
    SCOPED_TRACE(capacity);
    const std::size_t limit = capacity - 2;
    const auto plain = [](std::size_t count) { return std::string(count, 'p'); };
    EXPECT_EQ(cleaned(plain(limit - 1), capacity), plain(limit - 1));
    EXPECT_EQ(cleaned(plain(limit), capacity), plain(limit));
    EXPECT_EQ(cleaned(plain(limit + 1), capacity), plain(limit));
    EXPECT_EQ(cleaned(plain(5000), capacity), plain(limit));
    EXPECT_EQ(cleaned(plain(limit - 1) + "\"", capacity), plain(limit - 1) + "\\\"");
    EXPECT_EQ(cleaned(plain(limit - 1) + "\"p", capacity), plain(limit - 1) + "\\\"");
    EXPECT_EQ(cleaned(plain(limit - 2) + "\\p", capacity), plain(limit - 2) + "\\\\");
    EXPECT_EQ(cleaned(plain(limit) + "\"", capacity), plain(limit));
    EXPECT_EQ(cleaned(plain(limit - 1) + "\xC3\xA9", capacity), plain(limit - 1) + "_");
  }
}

TEST(CleanAuditText, FillsItsRoomWithEscapes) {
  // An even and an odd room for two-byte escapes.
  EXPECT_EQ(cleaned(std::string(10, '"'), 8), "\\\"\\\"\\\"");
  EXPECT_EQ(cleaned(std::string(10, '"'), 9), "\\\"\\\"\\\"\\\"");
}

// Every truncation, against unreadable memory.
TEST(CleanAuditText, StaysWithinEveryTruncation) {
  const std::string nasty = "a\"b\\\"\\\xC3\xA9\x01 \x7F\"";
  const std::string whole = cleaned(nasty, 64);
  for (std::size_t size = 0; size <= nasty.size(); ++size) {
    const std::string text = cleaned(std::string_view(nasty).substr(0, size), 64);
    EXPECT_GE(text.size(), size);
    EXPECT_TRUE(whole.starts_with(text)) << size;
  }
}

TEST(CleanAuditText, ReplacesWhatWasThere) {
  char text[16] = "before";
  clean_audit_text("", text);
  EXPECT_STREQ(text, "");
}

}  // namespace
}  // namespace kova::testing

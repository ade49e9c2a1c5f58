// Untrusted text on a terminal.
#include "admin/common/printable.h"

#include <gtest/gtest.h>

#include <string>

namespace kova::admin {
namespace {

TEST(Printable, EscapesWhatIsUnusual) {
  struct Case {
    std::string_view text, shown;
  };
  const Case cases[] = {
      {"", ""},
      {"plain ~ text \\ 'x'", "plain ~ text \\ 'x'"},
      {"\x1b[2J\x07\x7F", "\\x1B[2J\\x07\\x7F"},
      {"a\nb\rc\td", "a\\nb\\rc\\td"},
      {{"\0", 1}, "\\x00"},
      {"gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD \xF0\x9F\x98\x80",
       "gr\xC3\xBC\xC3\x9F \xE4\xB8\xAD \xF0\x9F\x98\x80"},
      {"\xC2\x9B", "\\u{9B}"},
      {"\xC2\xA0\xE2\x80\x89\xE3\x80\x80", "\\u{A0}\\u{2009}\\u{3000}"},
      {"\xE2\x80\x8B\xE2\x80\x8D\xEF\xBB\xBF\xC2\xAD", "\\u{200B}\\u{200D}\\u{FEFF}\\u{AD}"},
      {"\xE2\x80\xAE\xE2\x81\xA6\xD8\x9C", "\\u{202E}\\u{2066}\\u{61C}"},
      {"a\xCC\x81", "a\\u{301}"},
      {"\xE2\x80\xA8\xE2\x80\xA9", "\\u{2028}\\u{2029}"},
      {"\xF3\xA0\x81\x81", "\\u{E0041}"},
      {"\xEE\x80\x80", "\\u{E000}"},
      // Not UTF-8: each byte by itself.
      {"\xFF", "\\xFF"},
      {"\xC0\xAF", "\\xC0\\xAF"},
      {"\xED\xA0\x80", "\\xED\\xA0\\x80"},
      {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
      {"\xE2\x80", "\\xE2\\x80"},
      {"\xC3(", "\\xC3("},
  };
  for (const Case& one : cases) EXPECT_EQ(printable(one.text), one.shown);
}

TEST(Printable, NoByteOfAControlCharacterIsLeft) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const char text[] = {static_cast<char>(first), static_cast<char>(second)};
      for (const char c : printable({text, 2})) {
        const auto byte = static_cast<unsigned char>(c);
        EXPECT_TRUE(byte >= 0x20 && byte != 0x7F) << first << ' ' << second;
      }
    }
  }
}

TEST(FindMalformed, IsTheFirstByteOfNoCharacter) {
  EXPECT_EQ(find_malformed("a\xC3\xBC"), std::string_view::npos);
  EXPECT_EQ(find_malformed("a\xC3\xBC\xC3"), 3U);
  EXPECT_EQ(find_malformed("\xF4\x8F\xBF\xBF"), std::string_view::npos);
  EXPECT_EQ(find_malformed("\xE0\x9F\xBF"), 0U);
  EXPECT_EQ(find_malformed("\xF0\x8F\xBF\xBF"), 0U);
}

}  // namespace
}  // namespace kova::admin

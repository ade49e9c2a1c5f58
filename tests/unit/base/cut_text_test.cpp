// Cutting a text without cutting a character.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "base/string_scan.h"
#include "support/guard_page.h"

namespace kova {
namespace {

std::string cut(std::string_view text, std::size_t limit) {
  const testing::GuardedText after(text);
  const testing::GuardedText before(text, testing::GuardSide::kBefore);
  EXPECT_EQ(cut_text(before.view(), limit), cut_text(after.view(), limit));
  return std::string(cut_text(after.view(), limit));
}

TEST(CutText, CutsBetweenCharacters) {
  const struct {
    std::string_view text;
    std::size_t limit;
    std::string_view kept;
  } rows[] = {
      {"", 0, ""},
      {"abc", 3, "abc"},
      {"abc", 4, "abc"},
      {"abc", 2, "ab"},
      {"abc", 0, ""},
      // Two, three and four bytes, cut at each place.
      {"a\xC3\xA9", 3, "a\xC3\xA9"},
      {"a\xC3\xA9", 2, "a"},
      {"a\xE2\x82\xAC", 3, "a"},
      {"a\xE2\x82\xAC", 2, "a"},
      {"a\xF0\x9F\x98\x80", 4, "a"},
      {"a\xF0\x9F\x98\x80", 3, "a"},
      {"a\xF0\x9F\x98\x80", 2, "a"},
      {"\xF0\x9F\x98\x80z", 4, "\xF0\x9F\x98\x80"},
      {"\xC3\xA9\xC3\xA9", 2, "\xC3\xA9"},
      // What is no character is cut where the limit is.
      {"a\xC3z", 2, "a\xC3"},
      {"a\xE2\x82z", 2, "a\xE2"},
      {"a\xE2\x82", 2, "a\xE2"},
      {"\x80\x80\x80\x80\x80\x80", 4, "\x80\x80\x80\x80"},
      {"\xED\xA0\x80", 2, "\xED\xA0"},
      {"\xF0\x9F\x98\x80\x80z", 5, "\xF0\x9F\x98\x80\x80"},
  };
  for (const auto& row : rows) EXPECT_EQ(cut(row.text, row.limit), row.kept) << row.limit;
}

}  // namespace
}  // namespace kova

// The word scanner and its two helpers, at the edges of their text.
#include "policy/sql_words.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/guard_page.h"

namespace kova::testing {
namespace {

using Words = std::vector<std::string>;

// What the scanner yields over a text that touches unreadable memory.
Words words_of(std::string_view sql, GuardSide side = GuardSide::kAfter,
               std::size_t capacity = kWordCapacity) {
  const GuardedText text(sql, side);
  const GuardedBuffer buffer(capacity);
  std::string_view rest = text.view();
  TextOut word(buffer.data(), capacity);
  Words words;
  while (policy_next_word(rest, word)) {
    words.emplace_back(word.view());
    EXPECT_EQ(std::string(buffer.data()), words.back());
    EXPECT_EQ(rest.data() + rest.size(), text.view().data() + text.view().size());
  }
  EXPECT_TRUE(rest.empty());
  return words;
}

TEST(PolicyNextWord, YieldsWordsUpperCased) {
  struct Row {
    const char* sql;
    Words words;
  };
  const Row rows[] = {
      {"", {}},
      {" \t\n", {}},
      {"123 4.5", {}},
      {"select 'it''s' , a1_b FROM \"T\"", {"SELECT", "A1_B", "FROM", "T"}},
      {"9lives", {"LIVES"}},
      {"a9b", {"A9B"}},
      {"_", {"_"}},
      {"__a _9", {"__A", "_9"}},
      {"a.b", {"A", "B"}},
      {"a-b*c", {"A", "B", "C"}},
      {"[from] {x}", {"FROM", "X"}},
      {"a\"b\"c", {"A", "B", "C"}},
      {"a'b'c", {"A", "C"}},
      {"'a''b'c", {"C"}},
      {"''a''", {"A"}},
      {"'''a'''b", {"B"}},
      {"'a'''b", {"B"}},
      {"'open a b", {}},
      {"a 'open''", {"A"}},
      {"'", {}},
      {"''", {}},
      {"'''", {}},
      {"a\"'b\"c'd", {"A", "D"}},
      {"a--b/*c*/#d", {"A", "B", "C", "D"}},
      {"\xC3\xA9"
       "a\xFF"
       "b\x80",
       {"A", "B"}},
      {"a\vb\fc", {"A", "B", "C"}},
      {"1e5", {"E5"}},
      {"0x1F", {"X1F"}},
      {"N'text'", {"N"}},
      {"az AZ zA", {"AZ", "AZ", "ZA"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.sql);
    EXPECT_EQ(words_of(row.sql), row.words);
    EXPECT_EQ(words_of(row.sql, GuardSide::kBefore), row.words);
  }
}

TEST(PolicyNextWord, SkipsANulAsAnyOtherByte) {
  EXPECT_EQ(words_of(std::string_view("a\0b", 3)), (Words{"A", "B"}));
}

TEST(PolicyNextWord, CutsAWordAt63CharactersAndNeverSplitsIt) {
  for (const std::size_t length : {62U, 63U, 64U, 65U, 5000U}) {
    const std::string word(length, 'w');
    EXPECT_EQ(words_of(word + " x"),
              (Words{std::string(std::min<std::size_t>(length, 63), 'W'), "X"}))
        << length;
  }
}

TEST(PolicyNextWord, CutsAtTheCapacityGiven) {
  EXPECT_EQ(words_of("abcd xyz q", GuardSide::kAfter, 3), (Words{"AB", "XY", "Q"}));
}

TEST(PolicyNextWord, StopsRightAfterTheWord) {
  std::string_view rest = "  select , 'x'";
  char text[kWordCapacity];
  TextOut word(text);
  ASSERT_TRUE(policy_next_word(rest, word));
  EXPECT_EQ(rest, " , 'x'");
  EXPECT_FALSE(policy_next_word(rest, word));
  EXPECT_EQ(rest, "");
  EXPECT_FALSE(policy_next_word(rest, word));
}

// Every truncation, against unreadable memory on either side.
TEST(PolicyNextWord, StaysWithinEveryTruncation) {
  const std::string nasty = "se'l''e'ct\"'\"a''_9'''b--/*#\xC3\xA9'c" + std::string(70, 'z') + "'";
  for (std::size_t size = 0; size <= nasty.size(); ++size) {
    const std::string_view text = std::string_view(nasty).substr(0, size);
    EXPECT_EQ(words_of(text), words_of(text, GuardSide::kBefore));
  }
}

TEST(SkipLiteral, EndsAfterTheClosingQuote) {
  struct Row {
    const char* sql;
    std::size_t open;
    std::size_t after;
  };
  constexpr std::size_t kOpen = std::string_view::npos;
  constexpr Row kRows[] = {
      {"''", 0, 2},      {"'a'", 0, 3},      {"x'a'b", 1, 4},    {"'a''b'c", 0, 6},
      {"''''", 0, 4},    {"''''''", 0, 6},   {"'''a'", 0, 5},    {"'a' 'b'", 4, 7},
      {"'\"'", 0, 3},    {"'\\'x'", 0, 3},   {"'", 0, kOpen},    {"'a", 0, kOpen},
      {"'''", 0, kOpen}, {"'a''", 0, kOpen}, {"''a'", 3, kOpen}, {"'a\\", 0, kOpen},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.sql);
    const GuardedText after(row.sql);
    const GuardedText before(row.sql, GuardSide::kBefore);
    EXPECT_EQ(skip_literal(after.view(), row.open), row.after);
    EXPECT_EQ(skip_literal(before.view(), row.open), row.after);
  }
}

TEST(BeginsComment, KnowsThreeMarkers) {
  struct Row {
    const char* sql;
    bool begins;
  };
  constexpr Row kRows[] = {
      {"--", true},  {"-- x", true}, {"---", true}, {"/*", true},   {"/**/", true}, {"#", true},
      {"#x", true},  {"", false},    {"-", false},  {"- -", false}, {"/", false},   {"/ *", false},
      {"*/", false}, {"//", false},  {"-/", false}, {" --", false}, {"a#", false},  {"\"", false},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.sql);
    const GuardedText text(row.sql);
    EXPECT_EQ(begins_comment(text.view(), 0), row.begins);
  }
  const GuardedText within("a--b/*c#");
  for (std::size_t i = 0; i < 8; ++i)
    EXPECT_EQ(begins_comment(within.view(), i), i == 1 || i == 4 || i == 7) << i;
}

}  // namespace
}  // namespace kova::testing

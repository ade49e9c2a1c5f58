// Laying a statement out in rows: nothing lost, nothing that moves the cursor.
#include "admin/approve/statement_rows.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kova::admin {
namespace {

std::vector<std::string> rows_of(std::string_view text, std::size_t columns) {
  std::vector<std::string> rows;
  for (const StatementRow& row : statement_rows(text, columns)) {
    rows.push_back(std::to_string(row.place.line) + ':' + std::to_string(row.place.column) + ' ' +
                   row.shown);
  }
  return rows;
}

using Rows = std::vector<std::string>;

TEST(StatementRows, BreakAtTheWidthAndAfterLineFeeds) {
  EXPECT_EQ(rows_of("", 20), Rows{});
  EXPECT_EQ(rows_of(std::string(20, 'a'), 20), (Rows{"1:1 " + std::string(20, 'a')}));
  EXPECT_EQ(rows_of(std::string(20, 'a') + "b", 20),
            (Rows{"1:1 " + std::string(20, 'a'), "1:21 b"}));
  EXPECT_EQ(rows_of("a\nb", 20), (Rows{"1:1 a\\n", "2:1 b"}));
  EXPECT_EQ(rows_of("a\n\n", 20), (Rows{"1:1 a\\n", "2:1 \\n"}));
}

TEST(StatementRows, DoNotSplitAnEscape) {
  EXPECT_EQ(rows_of(std::string(18, 'a') + "\x1b" + "b", 20),
            (Rows{"1:1 " + std::string(18, 'a'), "1:19 \\x1Bb"}));
}

TEST(StatementRows, ABackslashIsDoubledSoThatAnEscapeIsUnambiguous) {
  EXPECT_EQ(rows_of("\\n\n", 20), (Rows{"1:1 \\\\n\\n"}));
}

TEST(StatementRows, WideCharactersCountTwoColumns) {
  const std::string wide = "\xE4\xB8\xAD";
  std::string eleven;
  for (int i = 0; i < 11; ++i) eleven += wide;
  EXPECT_EQ(rows_of(eleven, 20).size(), 2U);
  EXPECT_EQ(rows_of(eleven, 22).size(), 1U);
}

TEST(PlaceOf, CountsCharactersAndLineFeeds) {
  const std::string text =
      "a\xC3\xBC"
      "b\nc";
  EXPECT_EQ(place_of(text, 0).column, 1U);
  EXPECT_EQ(place_of(text, 3).column, 3U);
  EXPECT_EQ(place_of(text, 5).line, 2U);
  EXPECT_EQ(place_of(text, 5).column, 1U);
}

}  // namespace
}  // namespace kova::admin

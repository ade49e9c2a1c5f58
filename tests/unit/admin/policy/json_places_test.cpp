// Places in JSON text and in what it decodes to.
#include "admin/policy/json_places.h"

#include <gtest/gtest.h>

#include <string_view>

namespace kova::admin {
namespace {

struct Row {
  std::string_view source;
  std::size_t decoded;
  std::size_t index;
};

constexpr Row kRows[] = {
    {"abc", 0, 0},          {"abc", 2, 2},        {R"(\n\"x)", 2, 4},          {R"(\u0041x)", 1, 6},
    {R"(\u00e9x)", 2, 6},   {R"(\u20acx)", 3, 6}, {R"(\ud83d\ude00x)", 4, 12}, {"\xC3\xA9x", 2, 2},
    {R"(a\\\u0041)", 2, 3},
};

TEST(JsonPlaces, GoBothWays) {
  for (const Row& row : kRows) {
    EXPECT_EQ(source_offset(row.source, row.decoded), row.index) << row.source;
    EXPECT_EQ(decoded_offset(row.source, row.index), row.decoded) << row.source;
  }
}

TEST(JsonPlaces, AByteInsideAnEscapeIsTheEscape) {
  EXPECT_EQ(source_offset(R"(x\u20acy)", 2), 1U);
  EXPECT_EQ(source_offset("abc", 7), 3U);
}

TEST(JsonPlaces, AnEscapeThatStandsForNoCharacter) {
  EXPECT_EQ(malformed_escape(R"(x\ud83d\ude00\n\"y)"), std::string_view::npos);
  EXPECT_EQ(malformed_escape(""), std::string_view::npos);
  EXPECT_EQ(malformed_escape(R"(\nx\ud83d)"), 3U);
  EXPECT_EQ(malformed_escape(R"(\ud83d\u0041)"), 0U);
  EXPECT_EQ(malformed_escape(R"(\ud83d\ude00\ude00)"), 12U);
}

TEST(JsonPlaces, LinesAndColumnsCountBytesFromOne) {
  EXPECT_EQ(byte_place("abc", 0), "line 1, column 1");
  EXPECT_EQ(byte_place("\xC3\xA9x\r\ny", 2), "line 1, column 3");
  EXPECT_EQ(byte_place("\xC3\xA9x\r\ny", 5), "line 2, column 1");
  EXPECT_EQ(byte_place("", 0), "line 1, column 1");
}

}  // namespace
}  // namespace kova::admin

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "json/json.h"
#include "unit/json/parsed_text.h"
#include "unit/json/short_types.h"

namespace kova {
namespace {

using testing::GuardedBuffer;
using testing::GuardedText;
using testing::kA;
using testing::kP;
using testing::kS;
using testing::ParsedText;
using namespace std::string_literals;
using namespace std::string_view_literals;

// --- look-up ----------------------------------------------------------------------------------

TEST(JsonFind, MembersOfTheObjectItself) {
  const ParsedText parsed(
      R"({"a":{"b":1,"inner":2},"b":"a","arr":[{"c":3}],"":0,"é":4,"\u0069d":5,"a b":6})");
  ASSERT_TRUE(parsed.ok());
  const JsonDoc& doc = parsed.doc();
  const struct {
    std::string_view key, value;
  } found[] = {
      {"a", R"({"b":1,"inner":2})"}, {"b", "a"},  {"arr", R"([{"c":3}])"}, {"", "0"}, {"é", "4"},
      {R"(\u0069d)", "5"},           {"a b", "6"}};
  for (const auto& row : found) {
    SCOPED_TRACE(row.key);
    const int index = json_find(doc, 0, row.key);
    ASSERT_GE(index, 0);
    EXPECT_EQ(doc.raw(index), row.value);
  }
  for (const std::string_view absent :
       {"inner"sv, "c"sv, "id"sv, "A"sv, "ar"sv, "arrr"sv, "0"sv, "\0"sv, "\"a\""sv}) {
    EXPECT_EQ(json_find(doc, 0, absent), -1) << absent;
  }
  EXPECT_EQ(doc.raw(json_find(doc, json_find(doc, 0, "a"), "inner")), "2");
  EXPECT_EQ(json_find(doc, json_find(doc, 0, "a"), "arr"), -1);
}

TEST(JsonFind, TheFirstOfEqualKeysWins) {
  const ParsedText parsed(R"({"k":1,"k":2})");
  ASSERT_TRUE(parsed.ok());
  EXPECT_EQ(parsed.doc().raw(json_find(parsed.doc(), 0, "k")), "1");
}

TEST(JsonFind, OnlyAnObjectHasMembers) {
  const ParsedText parsed(R"({"a":["a",1],"s":"a","n":1,"o":{}})");
  ASSERT_TRUE(parsed.ok());
  const JsonDoc& doc = parsed.doc();
  for (const int index : {-1, -100, doc.count, doc.count + 1, 1000000}) {
    EXPECT_EQ(json_find(doc, index, "a"), -1) << index;
  }
  for (int index = 1; index < doc.count; ++index) {
    EXPECT_EQ(json_find(doc, index, "a"), -1) << index;
  }
  const ParsedText array(R"(["a",1])");
  ASSERT_TRUE(array.ok());
  EXPECT_EQ(json_find(array.doc(), 0, "a"), -1);
}

TEST(JsonFind, TheLastMemberAtTheEndOfTheTokens) {
  const ParsedText parsed(R"({"a":1,"z":2})", 5);
  ASSERT_TRUE(parsed.ok());
  EXPECT_EQ(parsed.doc().raw(json_find(parsed.doc(), 0, "z")), "2");
  EXPECT_EQ(json_find(parsed.doc(), 0, "y"), -1);
  const ParsedText empty("{}", 1);
  ASSERT_TRUE(empty.ok());
  EXPECT_EQ(json_find(empty.doc(), 0, "a"), -1);
  EXPECT_EQ(json_find(empty.doc(), 0, ""), -1);
}

TEST(JsonSkip, TheTokenAfterEachSubtree) {
  const ParsedText parsed(R"({"a":[1,[2,{"x":{}}]],"b":{},"c":"d"})");
  ASSERT_TRUE(parsed.ok());
  // 0 {, 1 "a", 2 [, 3 1, 4 [, 5 2, 6 {, 7 "x", 8 {}, 9 "b", 10 {}, 11 "c", 12 "d"
  constexpr int after[] = {13, 2, 9, 4, 9, 6, 9, 8, 9, 10, 11, 12, 13};
  ASSERT_EQ(parsed.doc().count, 13);
  for (int index = 0; index < 13; ++index) {
    EXPECT_EQ(json_skip(parsed.doc(), index), after[index]) << index;
  }
}

TEST(JsonSkip, AnEmptyStringIsOneToken) {
  const ParsedText parsed(R"(["","",[""]])");
  ASSERT_TRUE(parsed.ok());
  EXPECT_EQ(json_skip(parsed.doc(), 1), 2);
  EXPECT_EQ(json_skip(parsed.doc(), 2), 3);
  EXPECT_EQ(json_skip(parsed.doc(), 3), 5);
  EXPECT_EQ(json_skip(parsed.doc(), 4), 5);
}

TEST(JsonSkip, BadIndicesAndOpenTokens) {
  const ParsedText parsed("[1,2]");
  ASSERT_TRUE(parsed.ok());
  for (const int index : {-1, -2, 3, 4, 1000000}) {
    EXPECT_EQ(json_skip(parsed.doc(), index), -1) << index;
  }
  const JsonToken open[] = {{kA, 0, -1, 1, -1}, {kP, 1, 2, 0, 0}};
  const JsonDoc doc{"[1", open, 2};
  EXPECT_EQ(json_skip(doc, 0), -1);
  EXPECT_EQ(json_skip(doc, 1), 2);
}

// --- unescaping -------------------------------------------------------------------------------

struct StringRow {
  std::string_view source;  ///< between the quotation marks
  std::string_view decoded;
};

const StringRow kDecodable[] = {
    {"", ""},
    {"abc", "abc"},
    {R"(\")", "\""},
    {R"(\\)", "\\"},
    {R"(\/)", "/"},
    {R"(\b\f\n\r\t)", "\b\f\n\r\t"},
    {R"(a\nb)", "a\nb"},
    {R"(\u0041)", "A"},
    {R"(\u00410)", "A0"},
    {R"(\u0001)", "\x01"},
    {R"(\u001f\u007f)", "\x1f\x7f"},
    {R"(\u0080)", "\xc2\x80"},
    {R"(\u00e9\u00E9)", "\xc3\xa9\xc3\xa9"},
    {R"(\u07ff)", "\xdf\xbf"},
    {R"(\u0800)", "\xe0\xa0\x80"},
    {R"(\u20AC)", "\xe2\x82\xac"},
    {R"(\ud7ff)", "\xed\x9f\xbf"},
    {R"(\ue000)", "\xee\x80\x80"},
    {R"(\ufeff)", "\xef\xbb\xbf"},
    {R"(\uffff)", "\xef\xbf\xbf"},
    {R"(\ud800\udc00)", "\xf0\x90\x80\x80"},
    {R"(\ud83d\ude00)", "\xf0\x9f\x98\x80"},
    {R"(\ud83d\ude01)", "\xf0\x9f\x98\x81"},
    {R"(\uDBFF\uDFFF)", "\xf4\x8f\xbf\xbf"},
    {R"(x\ud83d\ude00y)", "x\xf0\x9f\x98\x80y"},
    {R"(\\u0041)", R"(\u0041)"},
    {"\xc3\xa9\xf0\x9f\x98\x80", "\xc3\xa9\xf0\x9f\x98\x80"},
    {"\x7f", "\x7f"},
};

const std::string_view kUndecodable[] = {
    R"(\ud800)",
    R"(\udbff)",
    R"(\udc00)",
    R"(\udfff)",
    R"(\ud800x)",
    R"(\ud800\n)",
    R"(\ud800\\)",
    R"(\ud800\u0041)",
    R"(\ud800\ud800)",
    R"(\ud800\udbff)",
    R"(\ud800\ue000)",
    R"(\udc00\ud800)",
    R"(a\ud800)",
    R"(\ud83d \ude00)",
    R"(\ud83dxude00)",
    R"(\ud83d\nde00)",
    R"(\ud800\ud83d\ude00)",
    R"(\ud83d\ude00\ud83d)",
};

std::string in_quotes(std::string_view source) {
  return "\"" + std::string(source) + "\"";
}

TEST(JsonGetString, EveryEscape) {
  for (const StringRow& row : kDecodable) {
    SCOPED_TRACE(row.source);
    const ParsedText parsed(in_quotes(row.source));
    ASSERT_TRUE(parsed.ok());
    const GuardedBuffer exact(row.decoded.size() + 1);
    std::memset(exact.data(), 'x', exact.size());
    ASSERT_TRUE(json_get_string(parsed.doc(), 0, TextOut(exact.data(), exact.size())));
    EXPECT_EQ(std::string_view(exact.data(), exact.size()), std::string(row.decoded) + '\0');
  }
}

TEST(JsonGetString, OneByteLessThanNeededFails) {
  for (const StringRow& row : kDecodable) {
    SCOPED_TRACE(row.source);
    const ParsedText parsed(in_quotes(row.source));
    ASSERT_TRUE(parsed.ok());
    for (std::size_t capacity = 1; capacity <= row.decoded.size(); ++capacity) {
      const GuardedBuffer small(capacity);
      EXPECT_FALSE(json_get_string(parsed.doc(), 0, TextOut(small.data(), capacity))) << capacity;
    }
  }
}

TEST(JsonGetString, LoneSurrogatesParseAndDoNotDecode) {
  for (const std::string_view source : kUndecodable) {
    SCOPED_TRACE(source);
    const ParsedText parsed(in_quotes(source));
    ASSERT_TRUE(parsed.ok());
    char out[64];
    EXPECT_FALSE(json_get_string(parsed.doc(), 0, out));
  }
}

TEST(JsonGetString, AnEscapedNulIsWrittenAndCounts) {
  const ParsedText parsed(R"("a\u0000b")");
  ASSERT_TRUE(parsed.ok());
  char out[4] = {'x', 'x', 'x', 'x'};
  ASSERT_TRUE(json_get_string(parsed.doc(), 0, out));
  EXPECT_EQ(std::string(out, 4), "a\0b\0"s);
  EXPECT_STREQ(out, "a");
  char small[3];
  EXPECT_FALSE(json_get_string(parsed.doc(), 0, small));
}

TEST(JsonGetString, WhatFollowsAnEscapedNulMustDecodeToo) {
  const ParsedText parsed(R"("a\u0000\ud800")");
  ASSERT_TRUE(parsed.ok());
  char out[64];
  EXPECT_FALSE(json_get_string(parsed.doc(), 0, out));
}

TEST(JsonGetString, OnlyStrings) {
  const ParsedText parsed(R"([{},[],1,true,null,"s"])");
  ASSERT_TRUE(parsed.ok());
  char out[16];
  for (const int index : {0, 1, 2, 3, 4, 5}) {
    EXPECT_FALSE(json_get_string(parsed.doc(), index, out)) << index;
  }
  EXPECT_TRUE(json_get_string(parsed.doc(), 6, out));
  for (const int index : {-1, 7, 1000}) {
    EXPECT_FALSE(json_get_string(parsed.doc(), index, out)) << index;
  }
}

// Escapes that the parser never lets through, in hand-made tokens that end at an unreadable page.
TEST(JsonGetString, EscapesCutByTheEndOfTheString) {
  for (const std::string_view source :
       {R"(\)"sv, R"(a\)"sv, R"(\u)"sv, R"(\u0)"sv, R"(\u00)"sv, R"(\u004)"sv, R"(\ud83d\)"sv,
        R"(\ud83d\u)"sv, R"(\ud83d\ude0)"sv}) {
    SCOPED_TRACE(source);
    const GuardedText text(source);
    const JsonToken token{kS, 0, static_cast<std::int32_t>(source.size()), 0, -1};
    char out[64];
    EXPECT_FALSE(json_get_string({text.view(), &token, 1}, 0, out));
    JsonStringReader reader(text.view());
    int byte = reader.next();
    while (byte >= 0) byte = reader.next();
    EXPECT_EQ(byte, JsonStringReader::kMalformed);
  }
}

TEST(JsonGetString, EscapesWithOtherDigits) {
  for (const std::string_view source : {R"(\u00g0)"sv, R"(\ud83d\ude0g)"sv}) {
    SCOPED_TRACE(source);
    const GuardedText text(source);
    const JsonToken token{kS, 0, static_cast<std::int32_t>(source.size()), 0, -1};
    char out[64];
    EXPECT_FALSE(json_get_string({text.view(), &token, 1}, 0, out));
    EXPECT_EQ(JsonStringReader(text.view()).next(), JsonStringReader::kMalformed);
  }
}

TEST(JsonGetString, EscapesAtEveryOffsetOfARun) {
  for (std::size_t run = 0; run <= 70; ++run) {
    SCOPED_TRACE(run);
    const std::string plain(run, 'p');
    const ParsedText parsed(in_quotes(plain + R"(\n)" + plain + R"(\ud83d\ude00)" + plain));
    ASSERT_TRUE(parsed.ok());
    const std::string wanted = plain + "\n" + plain + "\xf0\x9f\x98\x80" + plain;
    const GuardedBuffer exact(wanted.size() + 1);
    ASSERT_TRUE(json_get_string(parsed.doc(), 0, TextOut(exact.data(), exact.size())));
    EXPECT_EQ(std::string_view(exact.data()), wanted);
    const GuardedBuffer small(wanted.size());
    EXPECT_FALSE(json_get_string(parsed.doc(), 0, TextOut(small.data(), small.size())));
  }
}

// --- scalar texts -----------------------------------------------------------------------------

TEST(JsonGetScalarText, StringsAreDecodedAndTheRestIsRaw) {
  const struct {
    std::string_view source, text;
  } rows[] = {
      {R"("a\u0041")", "aA"},
      {R"("")", ""},
      {"2.0", "2.0"},
      {"-1.50e+3", "-1.50e+3"},
      {"true", "true"},
      {"null", "null"},
      {R"({"a": [1]})", R"({"a": [1]})"},
      {"[ ]", "[ ]"},
      {R"(["\u0041"])", R"(["\u0041"])"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    const ParsedText parsed(row.source);
    ASSERT_TRUE(parsed.ok());
    const GuardedBuffer exact(row.text.size() + 1);
    ASSERT_TRUE(json_get_scalar_text(parsed.doc(), 0, TextOut(exact.data(), exact.size())));
    EXPECT_EQ(std::string_view(exact.data()), row.text);
    if (row.text.empty()) continue;
    const GuardedBuffer small(row.text.size());
    EXPECT_FALSE(json_get_scalar_text(parsed.doc(), 0, TextOut(small.data(), small.size())));
  }
}

TEST(JsonGetScalarText, UndecodableStringsFail) {
  const ParsedText parsed(R"("\ud800")");
  ASSERT_TRUE(parsed.ok());
  char out[16];
  EXPECT_FALSE(json_get_scalar_text(parsed.doc(), 0, out));
}

TEST(JsonGetScalarText, BadIndices) {
  const ParsedText parsed("5", 1);
  ASSERT_TRUE(parsed.ok());
  char out[16];
  for (const int index : {-1, 1, 2, 1000}) {
    EXPECT_FALSE(json_get_scalar_text(parsed.doc(), index, out)) << index;
  }
}

// --- JsonStringReader -------------------------------------------------------------------------

// What the reader gives: the bytes, then how it ended.
std::pair<std::string, int> read_all(std::string_view source) {
  const GuardedText text(source);
  JsonStringReader reader(text.view());
  std::string bytes;
  for (;;) {
    const int next = reader.next();
    if (next < 0) return {bytes, next};
    bytes += static_cast<char>(next);
  }
}

TEST(JsonStringReader, GivesTheDecodedBytes) {
  for (const StringRow& row : kDecodable) {
    SCOPED_TRACE(row.source);
    const auto [bytes, end] = read_all(row.source);
    EXPECT_EQ(bytes, row.decoded);
    EXPECT_EQ(end, JsonStringReader::kEnd);
  }
}

TEST(JsonStringReader, StopsAtAMalformedEscape) {
  for (const std::string_view source : kUndecodable) {
    SCOPED_TRACE(source);
    EXPECT_EQ(read_all(source).second, JsonStringReader::kMalformed);
  }
  EXPECT_EQ(read_all(R"(ab\udc00)").first, "ab");
}

TEST(JsonStringReader, AnEscapedNulIsTheEnd) {
  const auto [bytes, end] = read_all(R"(ab\u0000cd)");
  EXPECT_EQ(bytes, "ab");
  EXPECT_EQ(end, JsonStringReader::kEnd);
}

TEST(JsonHex4, FourDigitsOfEitherCase) {
  const struct {
    std::string_view digits;
    bool valid;
    std::uint32_t value;
  } rows[] = {{"0000", true, 0},       {"ffff", true, 0xFFFF}, {"FFFF", true, 0xFFFF},
              {"12aB", true, 0x12AB},  {"D83d", true, 0xD83D}, {"0x12", false, 0},
              {"g000", false, 0},      {"000G", false, 0},     {" 123", false, 0},
              {"-123", false, 0},      {"+123", false, 0},     {"12\0003"sv, false, 0},
              {"12\xc3\xa9", false, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.digits);
    const GuardedText text(row.digits);
    std::uint32_t value = 0;
    EXPECT_EQ(json_hex4(text.data(), value), row.valid);
    if (row.valid) {
      EXPECT_EQ(value, row.value);
    }
  }
}

}  // namespace
}  // namespace kova

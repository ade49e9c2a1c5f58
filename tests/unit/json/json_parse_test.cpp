#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "json/json.h"
#include "unit/json/parsed_text.h"
#include "unit/json/short_types.h"

namespace kova {
namespace {

using testing::GuardedText;
using testing::GuardSide;
using testing::kA;
using testing::kO;
using testing::kP;
using testing::kS;
using testing::ParsedText;
using namespace std::string_view_literals;

bool parses(std::string_view text) {
  const bool after = ParsedText(text).ok();
  const bool before = ParsedText(text, 64, GuardSide::kBefore).ok();
  EXPECT_EQ(after, before);
  return after;
}

class Accepts : public ::testing::TestWithParam<std::string_view> {};
TEST_P(Accepts, Text) {
  EXPECT_TRUE(parses(GetParam()));
}

class Rejects : public ::testing::TestWithParam<std::string_view> {};
TEST_P(Rejects, Text) {
  EXPECT_FALSE(parses(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Literals, Accepts,
                         ::testing::Values("true", "false", "null", "[true,false,null]"));
INSTANTIATE_TEST_SUITE_P(Literals, Rejects,
                         ::testing::Values("t", "tru", "truex", "true1", "TRUE", "True", "f",
                                           "fals", "falsey", "n", "nul", "nulll", "NULL", "nil",
                                           "[truefalse]", "[true false]", "undefined", "NaN",
                                           "Infinity", "-Infinity", "[nul]", "{\"a\":tru}"));

INSTANTIATE_TEST_SUITE_P(Numbers, Accepts,
                         ::testing::Values("0", "-0", "7", "10", "1234567890", "-1", "-19", "0.0",
                                           "0.5", "-0.5", "1.25", "10.010", "1e5", "1E5", "1e+5",
                                           "1E-5", "0e0", "0E+00", "-0.0e-0", "1.5e300", "1e999",
                                           "123456789012345678901234567890", "[0,1]", "[-0]"));
INSTANTIATE_TEST_SUITE_P(Numbers, Rejects,
                         ::testing::Values("-", "--1", "-a", "+1", "+", ".5", "-.5", "1.", "-1.",
                                           "1.e1", "1e", "1E", "1e+", "1e-", "1e.5", "1e5.5",
                                           "1.5.5", "01", "00", "-01", "007", "0x1", "1a", "1_0",
                                           "1,5", "1 2", "0-1", "1e5e5", "[1.]", "[-]", "[01]",
                                           "1.5f", "\xef\xbc\x91"));

INSTANTIATE_TEST_SUITE_P(Containers, Accepts,
                         ::testing::Values("[]", "{}", "[ ]", "{ }", "[\t\n\r ]", "[1]", "[1,2,3]",
                                           "[[],{}]", "[[[]]]", "{\"a\":1}", "{\"a\":{}}",
                                           "{\"a\":[]}", "{\"\":\"\"}", "{\"a\":1,\"b\":2}",
                                           "{\"a\":1,\"a\":1}", " { \"a\" : 1 , \"b\" : [ 2 ] } "));
INSTANTIATE_TEST_SUITE_P(Containers, Rejects,
                         ::testing::Values("[", "]", "{", "}", "[1", "[1,", "[1,]", "[,1]", "[,]",
                                           "[1,,2]", "[1 2]", "[1}", "{]", "[}", "{\"a\"",
                                           "{\"a\"}", "{\"a\":", "{\"a\":}", "{\"a\":1",
                                           "{\"a\":1,", "{\"a\":1,}", "{,}", "{,\"a\":1}",
                                           "{\"a\"1}", "{\"a\" 1}", "{\"a\",1}", "{\"a\"::1}",
                                           "{\"a\":1:2}", "{\"a\":1 \"b\":2}", "{\"a\":1;\"b\":2}",
                                           "{\"a\":1]", "{a:1}", "{1:1}", "{null:1}", "{true:1}",
                                           "{[]:1}", "{{}:1}", "{'a':1}", "[']", "[']']", "[]]",
                                           "{}}", "[][]", "{}{}", "[] []", "{},", ",", ":", "[1]x",
                                           "//\n1", "1//", "/**/1", "[1,/**/2]", "#\n1", "(1)"));

INSTANTIATE_TEST_SUITE_P(Keys, Rejects,
                         ::testing::Values("{1}", "{[]}", "{\"a\":1,2}", "{:1}", "{\"a\":1,:2}"));

INSTANTIATE_TEST_SUITE_P(WhiteSpace, Accepts,
                         ::testing::Values(" 1", "1 ", "\t1\n", "\r\n 1 \r\n", "\n\n{}\n\n",
                                           "[\r1\t,\n2 ]"));
INSTANTIATE_TEST_SUITE_P(WhiteSpace, Rejects,
                         ::testing::Values(""sv, " "sv, "\t\r\n "sv, "\v1"sv, "1\f"sv, "\0"sv,
                                           "1\0"sv, "\0001"sv, "{}\0"sv, "[\v]"sv, "[1\f]"sv,
                                           "\xc2\xa0"
                                           "1"sv,
                                           "\xef\xbb\xbf{}"sv, "\xe2\x80\xa8{}"sv));

INSTANTIATE_TEST_SUITE_P(Strings, Accepts,
                         ::testing::Values(R"("")"sv, R"("abc")"sv, R"("\"\\\/\b\f\n\r\t")"sv,
                                           R"("\u0000")"sv, R"("\uABCD\uabcd\u0123")"sv,
                                           R"("\ud800")"sv, R"("\udc00\ud800")"sv,
                                           "\" !#[]{}:,'/\x7f\""sv,
                                           "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""sv,
                                           R"({"\u0061":"b"})"sv));
INSTANTIATE_TEST_SUITE_P(Strings, Rejects,
                         ::testing::Values(R"(")"sv, R"("abc)"sv, R"("\)"sv, R"("\")"sv,
                                           R"("\\\")"sv, R"("\u")"sv, R"("\u1")"sv, R"("\u12")"sv,
                                           R"("\u123")"sv, R"("\u123)"sv, R"("\u12)"sv, R"("\u)"sv,
                                           R"("\u1234)"sv, R"("\u12"34")"sv, R"("\u 123")"sv,
                                           R"("\u-123")"sv, R"("\u00g0")"sv, R"("\U0041")"sv,
                                           R"(abc")"sv, R"('a')"sv, R"("a"b")"sv, R"("a""b")"sv,
                                           R"({"a\":1})"sv, "\"a\nb\""sv));

TEST(JsonParse, ControlBytesMustBeEscaped) {
  for (int value = 0; value < 256; ++value) {
    if (value == '"' || value == '\\' || value >= 0x80) continue;
    SCOPED_TRACE(value);
    const std::string text = "\"a" + std::string(1, static_cast<char>(value)) + "b\"";
    EXPECT_EQ(parses(text), value >= 0x20);
    EXPECT_EQ(parses("{" + text + ":1}"), value >= 0x20);
  }
}

TEST(JsonParse, OneByteAfterABackslash) {
  for (int value = 0; value < 128; ++value) {
    SCOPED_TRACE(value);
    const char byte = static_cast<char>(value);
    const bool allowed = "\"\\/bfnrt"sv.find(byte) != std::string_view::npos;
    EXPECT_EQ(parses("\"\\" + std::string(1, byte) + "x\""), allowed);
    const bool with_digits = allowed || byte == 'u';
    EXPECT_EQ(parses("\"\\" + std::string(1, byte) + "12eF\""), with_digits);
  }
}

TEST(JsonParse, EveryByteInEveryPlaceOfAUnicodeEscape) {
  for (int value = 0; value < 128; ++value) {
    for (std::size_t place = 0; place < 4; ++place) {
      std::string digits = "0a1F";
      digits[place] = static_cast<char>(value);
      const bool hex = "0123456789abcdefABCDEF"sv.find(digits[place]) != std::string_view::npos;
      EXPECT_EQ(parses("\"\\u" + digits + "\""), hex) << value << " at " << place;
    }
  }
}

TEST(JsonParse, StopsAtTheByteThatIsWrong) {
  struct Row {
    std::string_view text;
    std::size_t stopped;
  };
  for (const Row& row : std::initializer_list<Row>{{R"(["a\qb"])", 3},
                                                   {R"(["a\u00g0b"])", 3},
                                                   {R"(["a\u00)", 3},
                                                   {R"("\)", 1},
                                                   {R"("\n)", 3},
                                                   {R"("\u0041)", 7},
                                                   {"[1,]", 3},
                                                   {"[tru]", 1},
                                                   {"[1", 2},
                                                   {"[\"a\x01\"]", 3},
                                                   {"[] x", 3}}) {
    JsonToken tokens[8];
    JsonDoc doc;
    std::size_t stopped = 99;
    EXPECT_FALSE(json_parse(row.text, tokens, 8, doc, &stopped)) << row.text;
    EXPECT_EQ(stopped, row.stopped) << row.text;
  }
}

TEST(JsonParse, NothingToParseOrNowhereToPutIt) {
  JsonToken tokens[2];
  const struct {
    std::string_view text;
    JsonToken* tokens;
    int capacity;
  } rows[] = {{std::string_view(), tokens, 2},
              {"", tokens, 2},
              {"1", nullptr, 2},
              {"1", tokens, 0},
              {"1", tokens, -1}};
  for (const auto& row : rows) {
    JsonDoc doc;
    std::size_t stopped = 99;
    EXPECT_FALSE(json_parse(row.text, row.tokens, row.capacity, doc, &stopped)) << row.capacity;
    EXPECT_EQ(stopped, 0U) << row.capacity;
  }
  JsonDoc doc;
  EXPECT_TRUE(json_parse("1", tokens, 1, doc));
}

// The parser gives up at the second byte of the longest text and reads none of a longer one: no
// other bytes need be there.
TEST(JsonParse, OffsetsAreOfThirtyTwoBits) {
  constexpr std::size_t kLongest = INT32_MAX;
  JsonToken token;
  JsonDoc doc;
  std::size_t stopped = 99;
  EXPECT_FALSE(json_parse({"1x", kLongest}, &token, 1, doc, &stopped));
  EXPECT_EQ(stopped, 1U);
  EXPECT_FALSE(json_parse({"1x", kLongest + 1}, &token, 1, doc, &stopped));
  EXPECT_EQ(stopped, 0U);
}

TEST(JsonParse, AnOpenContainerHasNoEnd) {
  for (const std::string_view text : {"["sv, "[1,"sv, "{"sv, "{\"a\":[]"sv}) {
    JsonToken tokens[4];
    JsonDoc doc;
    EXPECT_FALSE(json_parse(text, tokens, 4, doc)) << text;
    EXPECT_EQ(tokens[0].end, -1) << text;
  }
}

struct TokenRow {
  std::string_view text;
  std::vector<JsonToken> tokens;
};

TEST(JsonParse, EveryFieldOfEveryToken) {
  const TokenRow rows[] = {
      {"{}", {{kO, 0, 2, 0, -1}}},
      {" [ ] ", {{kA, 1, 4, 0, -1}}},
      {"\"\"", {{kS, 1, 1, 0, -1}}},
      {" \"ab\" ", {{kS, 2, 4, 0, -1}}},
      {"  -1.5e3\n", {{kP, 2, 8, 0, -1}}},
      {"true", {{kP, 0, 4, 0, -1}}},
      {"{\"a\":1}", {{kO, 0, 7, 2, -1}, {kS, 2, 3, 0, 0}, {kP, 5, 6, 0, 0}}},
      {"[1,\"b\",null]",
       {{kA, 0, 12, 3, -1}, {kP, 1, 2, 0, 0}, {kS, 4, 5, 0, 0}, {kP, 7, 11, 0, 0}}},
      {"{\"a\":[1,[2]],\"b\":{\"c\":{}}}",
       {{kO, 0, 26, 4, -1},
        {kS, 2, 3, 0, 0},
        {kA, 5, 12, 2, 0},
        {kP, 6, 7, 0, 2},
        {kA, 8, 11, 1, 2},
        {kP, 9, 10, 0, 4},
        {kS, 14, 15, 0, 0},
        {kO, 17, 25, 2, 0},
        {kS, 19, 20, 0, 7},
        {kO, 22, 24, 0, 7}}},
      {"{\"k\\\"\":\"\\u0041\"}", {{kO, 0, 16, 2, -1}, {kS, 2, 5, 0, 0}, {kS, 8, 14, 0, 0}}},
      {"[[],[]]", {{kA, 0, 7, 2, -1}, {kA, 1, 3, 0, 0}, {kA, 4, 6, 0, 0}}},
      {"[0]", {{kA, 0, 3, 1, -1}, {kP, 1, 2, 0, 0}}},
      {"[-0.0E+1,false]", {{kA, 0, 15, 2, -1}, {kP, 1, 8, 0, 0}, {kP, 9, 14, 0, 0}}},
      {"\"\xc3\xa9\"", {{kS, 1, 3, 0, -1}}},
  };
  for (const TokenRow& row : rows) {
    SCOPED_TRACE(row.text);
    const ParsedText parsed(row.text);
    ASSERT_TRUE(parsed.ok());
    ASSERT_EQ(parsed.doc().count, static_cast<int>(row.tokens.size()));
    EXPECT_EQ(parsed.doc().text, row.text);
    for (int i = 0; i < parsed.doc().count; ++i) {
      SCOPED_TRACE(i);
      const JsonToken& seen = parsed.doc()[i];
      const JsonToken& wanted = row.tokens[static_cast<std::size_t>(i)];
      EXPECT_EQ(seen.type, wanted.type);
      EXPECT_EQ(seen.start, wanted.start);
      EXPECT_EQ(seen.end, wanted.end);
      EXPECT_EQ(seen.size, wanted.size);
      EXPECT_EQ(seen.parent, wanted.parent);
    }
  }
}

TEST(JsonParse, ADocumentOfExactlyTheCapacityParses) {
  const struct {
    std::string_view text;
    int tokens;
  } rows[] = {{"1", 1},   {"\"a\"", 1},     {"{}", 1},           {"[]", 1},
              {"[1]", 2}, {"{\"a\":1}", 3}, {"{\"a\":[{}]}", 4}, {"[1,\"b\",[],{\"c\":null}]", 7}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const ParsedText exact(row.text, row.tokens);
    EXPECT_TRUE(exact.ok());
    EXPECT_EQ(exact.doc().count, row.tokens);
    for (int capacity = 1; capacity < row.tokens; ++capacity) {
      EXPECT_FALSE(ParsedText(row.text, capacity).ok()) << capacity;
    }
    EXPECT_TRUE(ParsedText(row.text, row.tokens + 1).ok());
  }
}

std::string array_of(int elements) {
  std::string text = "[";
  for (int i = 0; i < elements; ++i) text += i == 0 ? "0" : ",0";
  return text + "]";
}

TEST(JsonParse, MessageCapacityIsFourThousandAndNinetySixTokens) {
  EXPECT_EQ(kMessageTokenCapacity, 4096);
  EXPECT_TRUE(ParsedText(array_of(4095), kMessageTokenCapacity).ok());
  EXPECT_FALSE(ParsedText(array_of(4096), kMessageTokenCapacity).ok());
}

std::string nested(std::string_view open, int levels, std::string_view innermost,
                   std::string_view close) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += open;
  text += innermost;
  for (int i = 0; i < levels; ++i) text += close;
  return text;
}

TEST(JsonParse, DepthLimit) {
  const struct {
    std::string_view name;
    std::string text;
    bool parses;
  } rows[] = {
      {"128 arrays around a value", nested("[", 128, "1", "]"), true},
      {"129 arrays, the innermost empty", nested("[", 129, "", "]"), true},
      {"129 arrays, the innermost of white space", nested("[", 129, " ", "]"), true},
      {"129 arrays around a number", nested("[", 129, "1", "]"), false},
      {"129 arrays around a string", nested("[", 129, "\"\"", "]"), false},
      {"129 arrays around an object", nested("[", 129, "{}", "]"), false},
      {"130 arrays", nested("[", 130, "", "]"), false},
      {"128 objects around a value", nested("{\"a\":", 128, "1", "}"), true},
      {"128 objects around an empty one", nested("{\"a\":", 128, "{}", "}"), true},
      {"129 objects around a value", nested("{\"a\":", 129, "1", "}"), false},
      {"129 objects around an empty one", nested("{\"a\":", 129, "{}", "}"), false},
      {"64 pairs around a value", nested("[{\"a\":", 64, "1", "}]"), true},
      {"64 pairs around an array", nested("[{\"a\":", 64, "[]", "}]"), true},
      {"64 pairs around a full array", nested("[{\"a\":", 64, "[1]", "}]"), false},
      {"a value after the deepest array", nested("[", 128, "[],1", "]"), true},
      {"100,000 open arrays", nested("[", 100000, "", ""), false},
      {"100,000 open objects", nested("{\"a\":", 100000, "", ""), false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ParsedText(row.text, kMessageTokenCapacity).ok(), row.parses);
  }
}

TEST(JsonParse, EveryTruncationFails) {
  const std::string_view text =
      " {\"jsonrpc\":\"2.0\",\"id\":-12.5e+3,\"e\":[],\"f\":{},\"n\":[null,true,false,0],"
      "\"s\":\"\\u00e9\\n\\\\ \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 \\ud83d\\ude00\","
      "\"deep\":[[[{\"x\":[1,2,{\"y\":\"z\"}]}]]]}";
  ASSERT_TRUE(parses(text));
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_FALSE(parses(text.substr(0, length))) << length;
  }
}

// --- UTF-8 ------------------------------------------------------------------------------------

// The well-formed byte sequences of RFC 3629 (section 4), by their first two bytes.
struct Utf8Row {
  int lead_low, lead_high, second_low, second_high;
  int more;  ///< continuation bytes after the second
};
constexpr Utf8Row kUtf8Rows[] = {
    {0xC2, 0xDF, 0x80, 0xBF, 0}, {0xE0, 0xE0, 0xA0, 0xBF, 1}, {0xE1, 0xEC, 0x80, 0xBF, 1},
    {0xED, 0xED, 0x80, 0x9F, 1}, {0xEE, 0xEF, 0x80, 0xBF, 1}, {0xF0, 0xF0, 0x90, 0xBF, 2},
    {0xF1, 0xF3, 0x80, 0xBF, 2}, {0xF4, 0xF4, 0x80, 0x8F, 2},
};

const Utf8Row* row_of(int lead, int second) {
  for (const Utf8Row& row : kUtf8Rows) {
    if (lead >= row.lead_low && lead <= row.lead_high && second >= row.second_low &&
        second <= row.second_high) {
      return &row;
    }
  }
  return nullptr;
}

bool is_continuation(int byte) {
  return byte >= 0x80 && byte <= 0xBF;
}

// Parses a string of these bytes without mapping pages, for the loops below.
bool string_parses(std::initializer_list<int> bytes) {
  std::string text = "\"";
  for (const int byte : bytes) text += static_cast<char>(byte);
  text += '"';
  JsonToken token;
  JsonDoc doc;
  return json_parse(text, &token, 1, doc);
}

TEST(JsonParseUtf8, EveryLeadByteAlone) {
  for (int lead = 0x80; lead < 0x100; ++lead) EXPECT_FALSE(string_parses({lead})) << lead;
}

TEST(JsonParseUtf8, EveryPairOfBytes) {
  for (int lead = 0x80; lead < 0x100; ++lead) {
    for (int second = 0x20; second < 0x100; ++second) {
      if (second == '"' || second == '\\') continue;
      const Utf8Row* row = row_of(lead, second);
      ASSERT_EQ(string_parses({lead, second}), row != nullptr && row->more == 0)
          << lead << " " << second;
    }
  }
}

TEST(JsonParseUtf8, EveryTripleAtTheBoundaries) {
  for (int lead = 0xC0; lead < 0x100; ++lead) {
    for (int second = 0x7F; second <= 0xC0; ++second) {
      for (const int third : {0x20, 0x7F, 0x80, 0x81, 0xBE, 0xBF, 0xC0, 0xFF}) {
        const Utf8Row* row = row_of(lead, second);
        const bool three = row != nullptr && row->more == 1 && is_continuation(third);
        const bool two_and_one = row != nullptr && row->more == 0 && third < 0x80;
        ASSERT_EQ(string_parses({lead, second, third}), three || two_and_one)
            << lead << " " << second << " " << third;
      }
    }
  }
}

TEST(JsonParseUtf8, EveryQuadrupleAtTheBoundaries) {
  constexpr int bounds[] = {0x7F, 0x80, 0xBF, 0xC0};
  for (int lead = 0xE0; lead < 0x100; ++lead) {
    for (int second = 0x7F; second <= 0xC0; ++second) {
      for (const int third : bounds) {
        for (const int fourth : bounds) {
          const Utf8Row* row = row_of(lead, second);
          const bool third_ok = row != nullptr && is_continuation(third);
          const bool four = third_ok && row->more == 2 && is_continuation(fourth);
          const bool three_and_one = third_ok && row->more == 1 && fourth < 0x80;
          ASSERT_EQ(string_parses({lead, second, third, fourth}), four || three_and_one)
              << lead << " " << second << " " << third << " " << fourth;
        }
      }
    }
  }
}

std::string encode(std::uint32_t code) {
  std::string bytes;
  const auto put = [&bytes](std::uint32_t byte) { bytes += static_cast<char>(byte); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  }
  return bytes;
}

TEST(JsonParseUtf8, EveryCodePointIsAcceptedAndEverySurrogateRefused) {
  for (std::uint32_t block = 0; block < 0x110000; block += 0x100) {
    const bool surrogates = block >= 0xD800 && block < 0xE000;
    std::string text = "\"";
    for (std::uint32_t code = block; code < block + 0x100; ++code) {
      if (code < 0x20 || code == '"' || code == '\\') continue;
      if (surrogates) {
        JsonToken token;
        JsonDoc doc;
        ASSERT_FALSE(json_parse("\"" + encode(code) + "\"", &token, 1, doc)) << code;
      } else {
        text += encode(code);
      }
    }
    if (surrogates) continue;
    text += '"';
    JsonToken token;
    JsonDoc doc;
    ASSERT_TRUE(json_parse(text, &token, 1, doc)) << block;
  }
}

TEST(JsonParseUtf8, BadSequencesFailAnywhereInTheInput) {
  const std::string_view bad[] = {
      "\xc0\x80"sv,         "\xed\xa0\x80"sv,     "\xed\xbf\xbf"sv,     "\x80"sv,
      "\xc1\xbf"sv,         "\xe0\x9f\xbf"sv,     "\xf0\x8f\xbf\xbf"sv, "\xff"sv,
      "\xf4\x90\x80\x80"sv, "\xf5\x80\x80\x80"sv, "\xfe\xff"sv};
  const std::string_view around[][2] = {
      {"", "1"},        {"1", ""},
      {"[1", "]"},      {"\"", "\""},
      {"{\"", "\":1}"}, {"\"a long run of plain text before the bytes ", " and after\""}};
  for (const std::string_view bytes : bad) {
    for (const auto& [before, after] : around) {
      const std::string text = std::string(before) + std::string(bytes) + std::string(after);
      EXPECT_FALSE(parses(text)) << ::testing::PrintToString(text);
    }
  }
}

TEST(JsonParseUtf8, SequencesCutByTheEndOfTheInput) {
  const std::string_view cut[] = {
      "\"\xc3"sv,     "\"\xe2"sv,         "\"\xe2\x82"sv,        "\"\xf0"sv,
      "\"\xf0\x9f"sv, "\"\xf0\x9f\x98"sv, "\"\xf0\x9f\x98\x80"sv};
  for (const std::string_view text : cut)
    EXPECT_FALSE(parses(text)) << ::testing::PrintToString(text);
}

// Neither a text that parses nor one that does not needs more tokens than that.
TEST(JsonParse, ATextHasNoMoreTokensThanBytes) {
  EXPECT_EQ(json_token_count("", 4), 1);
  EXPECT_EQ(json_token_count("[1]", 4), 4);
  EXPECT_EQ(json_token_count("[12]", 4), 4);
  EXPECT_EQ(json_token_count("[1,2]", 4), 4);
  for (const std::string_view text : {"1"sv, "[]"sv, "{}"sv, "[[]]"sv, "[1,1,1]"sv, "{\"\":1}"sv,
                                      "[[[["sv, "[1,1,"sv, "[{\"\":"sv, "1 1"sv}) {
    const auto stopped_at = [&](int capacity) {
      std::vector<JsonToken> tokens(static_cast<std::size_t>(capacity));
      JsonDoc doc;
      std::size_t stopped = 0;
      return json_parse(text, tokens.data(), capacity, doc, &stopped) ? text.size() + 1 : stopped;
    };
    EXPECT_EQ(stopped_at(json_token_count(text, 64)), stopped_at(64)) << text;
  }
}

// Runs of every length before a special byte: a scanner that takes several bytes at a time must
// see each of them, wherever it stands.
TEST(JsonParse, SpecialBytesAtEveryOffsetOfARun) {
  for (std::size_t run = 0; run <= 150; ++run) {
    SCOPED_TRACE(run);
    const std::string plain(run, 'p');
    EXPECT_TRUE(parses("\"" + plain + "\""));
    EXPECT_TRUE(parses("\"" + plain + "\\n" + plain + "\""));
    EXPECT_TRUE(parses("\"" + plain + "\xc3\xa9" + plain + "\""));
    EXPECT_FALSE(parses("\"" + plain));
    EXPECT_FALSE(parses("\"" + plain + "\"" + plain + "\""));
  }
}

// Every one behind a run, at the end of the text and before letters that a backslash may stand
// before.
TEST(JsonParse, WrongBytesAtEveryOffsetOfARun) {
  for (const std::string_view wrong : {"\x1f"sv, "\0"sv, "\x80"sv, "\\x"sv, "\\"sv}) {
    SCOPED_TRACE(::testing::PrintToString(wrong));
    for (std::size_t run = 0; run <= 150; ++run) {
      SCOPED_TRACE(run);
      const std::string before = "\"" + std::string(run, 'p') + std::string(wrong);
      EXPECT_FALSE(parses(before));
      if (wrong == "\\") continue;
      EXPECT_FALSE(parses(before + std::string(run, 'p') + "\""));
      EXPECT_FALSE(parses(before + std::string(run, 'n') + "\""));
    }
  }
}

}  // namespace
}  // namespace kova

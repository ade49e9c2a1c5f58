#include "mcp/duplicate_keys.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "unit/json/parsed_text.h"

namespace kova {
namespace {

using testing::ParsedText;

bool duplicates(std::string_view text) {
  const ParsedText parsed(text, kMessageTokenCapacity);
  EXPECT_TRUE(parsed.ok()) << text;
  return has_duplicate_keys(parsed.doc());
}

std::string member(std::string_view key) {
  return "\"" + std::string(key) + "\":1";
}

TEST(DuplicateKeys, Table) {
  const std::string x255(255, 'x');
  const std::string x256(256, 'x');
  const struct {
    std::string text;
    bool duplicate;
  } rows[] = {
      {"{}", false},
      {"[]", false},
      {"1", false},
      {"\"a\"", false},
      {R"({"a":1})", false},
      {R"({"a":1,"b":2})", false},
      {R"({"a":1,"a":2})", true},
      {R"({"a":1,"b":2,"c":3,"a":4})", true},
      {R"({"a":1,"b":2,"b":3,"c":4})", true},
      {R"({"a":1,"b":2,"c":3,"c":4})", true},
      {R"({"":1,"":2})", true},
      {R"({"":1,"a":2})", false},
      {R"({"a":1,"A":2})", false},
      {R"({"a":1,"aa":2,"aaa":3})", false},
      {R"({"aa":1,"a":2})", false},
      // plain and escaped spellings
      {R"({"method":1,"\u006dethod":2})", true},
      {R"({"\u006dethod":1,"method":2})", true},
      {R"({"\u006dethod":1,"\u006Dethod":2})", true},
      {R"({"a\/b":1,"a/b":2})", true},
      {R"({"a\"b":1,"a\u0022b":2})", true},
      {R"({"\\u0061":1,"a":2})", false},
      {R"({"\n":1,"\u000a":2})", true},
      {R"({"\b":1,"\f":2})", false},
      {"{\"\xc3\xa9\":1,\"\\u00e9\":2}", true},
      {"{\"\xf0\x9f\x98\x80\":1,\"\\ud83d\\ude00\":2}", true},
      {"{\"\xc3\xa9\":1,\"\xc3\xa8\":2,\"z\":3}", false},
      // the decoded text ends at an escaped NUL
      {R"({"a":1,"a\u0000b":2})", true},
      {R"({"a\u0000b":1,"a\u0000c":2})", true},
      {R"({"\u0000":1,"":2})", true},
      {R"({"a\u0000":1,"b\u0000":2})", false},
      // keys that do not decode take no part
      {R"({"\ud800":1,"\ud800":2})", false},
      {R"({"a\ud800":1,"a\ud800":2,"b":3})", false},
      {R"({"\ud800":1,"a":2,"\ud800":3,"a":4})", true},
      {R"({"a":1,"a\u0000\ud800":2})", false},
      {R"({"a\u0000\ud800":1,"a\u0000\ud800":2})", false},
      // keys over 255 bytes take no part
      {"{" + member(x255) + "," + member(x255) + "}", true},
      {"{" + member(x256) + "," + member(x256) + "}", false},
      {"{" + member(x255) + "," + member(x256) + "}", false},
      {"{" + member(x255) + "," + member(x255 + "\\u0041") + "}", false},
      {"{" + member(std::string(254, 'x') + "\\u0041") + "," + member(std::string(254, 'x') + "A") +
           "}",
       true},
      {"{" + member(std::string(253, 'x') + "\\u00e9") + "," +
           member(std::string(253, 'x') + "\xc3\xa9") + "}",
       true},
      {"{" + member(std::string(254, 'x') + "\\u00e9") + "," +
           member(std::string(254, 'x') + "\xc3\xa9") + "}",
       false},
      {"{" + member("a") + "," + member("a\\u0000" + x255) + "}", false},
      {"{" + member("a") + "," + member("a\\u0000" + std::string(253, 'x')) + "}", true},
      {"{" + member("a") + "," + member("a\\u0000" + std::string(254, 'x')) + "}", false},
      {"{" + member(x256) + "," + member("a") + "," + member("a") + "}", true},
      // every object on its own
      {R"({"a":{"a":{"a":1}}})", false},
      {R"({"a":{"b":1},"b":{"b":2}})", false},
      {R"({"a":{"b":1,"b":2}})", true},
      {R"([{"a":1},{"a":2}])", false},
      {R"([{"a":1},{"b":2,"c":{"d":[{"e":1,"e":2}]}}])", true},
      {R"({"a":{"x":1,"y":2},"b":3,"a":4})", true},
      {R"({"a":[1,2,{"b":3}],"c":4,"b":5})", false},
      {R"({"a":{"b":1},"c":{"d":1,"e":{"f":1,"g":2,"f":3}}})", true},
      // keys against keys, not against values
      {R"({"a":"a","b":"a"})", false},
      {R"({"a":"b","b":"a"})", false},
      {R"({"a":["a","a"]})", false},
      // keys of the same hash
      {R"({"costarring":1,"liquid":2})", false},
      {R"({"\u0063ostarring":1,"liquid":2})", false},
      {R"({"costarring":1,"l\u0069quid":2})", false},
      {R"({"liquid":1,"costarring":2,"liquid":3})", true},
      {R"({"costarring":1,"liquid":2,"\u0063ostarring":3})", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text.substr(0, 100));
    EXPECT_EQ(duplicates(row.text), row.duplicate);
  }
}

// Tokens that the parser never makes: a member without a key that is a string, or without a value.
TEST(DuplicateKeys, MalformedPairsFailTheCheck) {
  constexpr JsonType kO = JsonType::kObject;
  constexpr JsonType kS = JsonType::kString;
  constexpr JsonType kP = JsonType::kPrimitive;
  const std::string_view text = R"({ "a" 12 "b"   })";
  const std::vector<JsonToken> number_key = {
      {kO, 0, 16, 2, -1}, {kP, 6, 7, 0, 0}, {kP, 7, 8, 0, 0}};
  EXPECT_TRUE(has_duplicate_keys({text, number_key.data(), 3}));
  const std::vector<JsonToken> no_value = {{kO, 0, 16, 1, -1}, {kS, 3, 4, 0, 0}};
  EXPECT_TRUE(has_duplicate_keys({text, no_value.data(), 2}));
  const std::vector<JsonToken> odd = {
      {kO, 0, 16, 3, -1}, {kS, 3, 4, 0, 0}, {kP, 6, 8, 0, 0}, {kS, 10, 11, 0, 0}};
  EXPECT_TRUE(has_duplicate_keys({text, odd.data(), 4}));
  const std::vector<JsonToken> whole = {
      {kO, 0, 16, 4, -1}, {kS, 3, 4, 0, 0}, {kP, 6, 7, 0, 0}, {kS, 10, 11, 0, 0}, {kP, 7, 8, 0, 0}};
  EXPECT_FALSE(has_duplicate_keys({text, whole.data(), 3}));
}

// What stands behind the tokens of a message is no part of it.
TEST(DuplicateKeys, NoTokenBeyondTheCountIsLookedAt) {
  const std::string_view text = R"([1] { "a" 12 )";
  const std::vector<JsonToken> tokens = {{JsonType::kArray, 0, 3, 1, -1},
                                         {JsonType::kPrimitive, 1, 2, 0, 0},
                                         {JsonType::kObject, 4, 13, 1, -1},
                                         {JsonType::kPrimitive, 10, 12, 0, 2}};
  EXPECT_TRUE(has_duplicate_keys({text, tokens.data(), 4}));
  EXPECT_FALSE(has_duplicate_keys({text, tokens.data(), 2}));
}

// The largest object that a message can hold: 2,047 members.
constexpr int kMemberLimit = (kMessageTokenCapacity - 1) / 2;

std::string object_of(const std::vector<std::string>& keys) {
  std::string text = "{";
  for (const std::string& key : keys) text += (text.size() == 1 ? "" : ",") + member(key);
  return text + "}";
}

std::vector<std::string> distinct_keys(int count, std::string_view prefix) {
  std::vector<std::string> keys;
  for (int i = 0; i < count; ++i) keys.push_back(std::string(prefix) + std::to_string(i));
  return keys;
}

TEST(DuplicateKeys, TheLargestObject) {
  for (const std::string& prefix :
       {std::string("k"), std::string(240, 'p'), std::string("\\u0041\\u00e9")}) {
    SCOPED_TRACE(prefix);
    std::vector<std::string> keys = distinct_keys(kMemberLimit, prefix);
    EXPECT_FALSE(duplicates(object_of(keys)));
    const std::string last = keys.back();
    keys.back() = keys.front();
    EXPECT_TRUE(duplicates(object_of(keys)));
    keys.back() = keys[keys.size() - 2];
    EXPECT_TRUE(duplicates(object_of(keys)));
    keys.back() = last;
    keys[1] = keys[0];
    EXPECT_TRUE(duplicates(object_of(keys)));
  }
}

TEST(DuplicateKeys, ManyEqualKeys) {
  for (const int count : {2, 17, 32, 33, 100, kMemberLimit}) {
    const std::vector<std::string> keys(static_cast<std::size_t>(count), "same");
    EXPECT_TRUE(duplicates(object_of(keys))) << count;
  }
}

// Few keys and many are looked at in two ways.
TEST(DuplicateKeys, AnEqualPairAmongAnyNumberOfKeys) {
  for (int count = 2; count <= 80; ++count) {
    SCOPED_TRACE(count);
    std::vector<std::string> keys = distinct_keys(count, "k");
    EXPECT_FALSE(duplicates(object_of(keys)));
    keys.back() = "\\u006b0";
    EXPECT_TRUE(duplicates(object_of(keys)));
  }
}

TEST(DuplicateKeys, KeysOfTheSameHashAmongMany) {
  std::vector<std::string> keys = distinct_keys(100, "k");
  keys.insert(keys.end(), {"costarring", "liquid"});
  EXPECT_FALSE(duplicates(object_of(keys)));
  keys.emplace_back("\\u0063ostarring");
  EXPECT_TRUE(duplicates(object_of(keys)));
}

TEST(DuplicateKeys, ManyObjectsAndDeepOnes) {
  std::string many = "[";
  for (int i = 0; i < 800; ++i) many += R"({"a":1,"b":2},)";
  EXPECT_FALSE(duplicates(many + "{}]"));
  EXPECT_TRUE(duplicates(many + R"({"a":1,"b":2,"\u0061":3}])"));
  std::string deep;
  for (int i = 0; i < kJsonDepthLimit; ++i) deep += R"({"a":1,"b":)";
  const std::string closing(static_cast<std::size_t>(kJsonDepthLimit), '}');
  EXPECT_FALSE(duplicates(deep + "{}" + closing));
  EXPECT_TRUE(duplicates(deep + "{}" + closing.substr(1) + R"(,"b":0})"));
}

// Random objects over few keys in several spellings, against the rule spelled out.
TEST(DuplicateKeys, RandomObjects) {
  struct Spelling {
    std::string_view source;
    int key;  ///< equal numbers are equal keys, -1 takes no part
  };
  const Spelling spellings[] = {
      {"a", 0},        {R"(\u0061)", 0}, {"b", 1},  {R"(\u0062)", 1},  {"ab", 2},
      {"\xc3\xa9", 3}, {R"(\u00e9)", 3}, {"", 4},   {R"(\u0000z)", 4}, {R"(\udc00)", -1},
      {"c", 5},        {"d", 6},         {"e", 7},  {"f", 8},          {R"(a\u0000)", 0},
      {"ba", 9},       {"B", 10},        {"0", 11}, {"\x7f", 12},      {R"(\/)", 13},
  };
  std::mt19937 random(20240607);
  for (int round = 0; round < 4000; ++round) {
    const int members = static_cast<int>(random() % 7);
    std::string text = "{";
    std::set<int> seen;
    bool duplicate = false;
    for (int i = 0; i < members; ++i) {
      const Spelling& spelling = spellings[random() % std::size(spellings)];
      text += (i == 0 ? "" : ",") + member(spelling.source);
      if (spelling.key >= 0 && !seen.insert(spelling.key).second) duplicate = true;
    }
    text += "}";
    EXPECT_EQ(duplicates(text), duplicate) << text;
  }
}

}  // namespace
}  // namespace kova

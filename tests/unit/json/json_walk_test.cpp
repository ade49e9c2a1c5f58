#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json/json.h"
#include "support/guard_page.h"
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

/// Tokens that the parser never makes. None beside them can be read.
class HandMade {
 public:
  HandMade(std::string_view text, const std::vector<JsonToken>& tokens, GuardSide side)
      : tokens_({reinterpret_cast<const char*>(tokens.data()), tokens.size() * sizeof(JsonToken)},
                side),
        doc_{.text = text,
             .tokens = reinterpret_cast<const JsonToken*>(tokens_.data()),
             .count = static_cast<int>(tokens.size())} {}

  [[nodiscard]] const JsonDoc& doc() const { return doc_; }

 private:
  GuardedText tokens_;
  JsonDoc doc_;
};

TEST(JsonDoc, HasATypeForItsTokensOnly) {
  for (const GuardSide side : {GuardSide::kAfter, GuardSide::kBefore}) {
    const HandMade made("[1]", {{kA, 0, 3, 1, -1}, {kP, 1, 2, 0, 0}}, side);
    const JsonDoc& doc = made.doc();
    for (const JsonType type : {kO, kA, kS, kP}) {
      EXPECT_EQ(doc.is(0, type), type == kA);
      EXPECT_EQ(doc.is(1, type), type == kP);
      for (const int index : {-2, -1, 2, 3}) EXPECT_FALSE(doc.is(index, type)) << index;
    }
  }
}

TEST(JsonDoc, HasNoTokensAtFirst) {
  const JsonDoc doc;
  for (const int index : {-1, 0, 1}) {
    EXPECT_FALSE(doc.is(index, kO)) << index;
    EXPECT_EQ(json_skip(doc, index), -1) << index;
  }
}

// --- members ----------------------------------------------------------------------------------

struct Walk {
  std::vector<std::pair<std::string, std::string>> members;  ///< source texts of key and value
  bool well_formed;
};

Walk walk_members(const JsonDoc& doc, int object) {
  JsonMembers members(doc, object);
  Walk walk{};
  for (const JsonMember member : members) {
    walk.members.emplace_back(doc.raw(member.key), doc.raw(member.value));
  }
  walk.well_formed = members.well_formed();
  return walk;
}

TEST(JsonMembers, KeysAndValuesInOrder) {
  const struct {
    std::string_view source;
    int tokens, object;
    std::vector<std::pair<std::string, std::string>> members;
  } rows[] = {
      {"{}", 1, 0, {}},
      {R"({"":""})", 3, 0, {{"", ""}}},
      {R"({"a":1,"a":2})", 5, 0, {{"a", "1"}, {"a", "2"}}},
      {R"({"a":[{"b":1},[]],"c":{"d":{}},"e":"f"})",
       13,
       0,
       {{"a", R"([{"b":1},[]])"}, {"c", R"({"d":{}})"}, {"e", "f"}}},
      {R"([{"a":1},{"b":{},"c":2},{"d":3}])", 12, 4, {{"b", "{}"}, {"c", "2"}}},
      {R"({"a":{"b":{}},"c":1})", 7, 4, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    const ParsedText parsed(row.source, row.tokens);
    ASSERT_TRUE(parsed.ok());
    const Walk walk = walk_members(parsed.doc(), row.object);
    EXPECT_EQ(walk.members, row.members);
    EXPECT_TRUE(walk.well_formed);
  }
}

TEST(JsonMembers, AnyOtherTokenHasNone) {
  const ParsedText parsed(R"([["a",1],"a",1,null])", 7);
  ASSERT_TRUE(parsed.ok());
  for (const int index : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 1000}) {
    SCOPED_TRACE(index);
    const Walk walk = walk_members(parsed.doc(), index);
    EXPECT_TRUE(walk.members.empty());
    EXPECT_FALSE(walk.well_formed);
  }
}

TEST(JsonMembers, EndAtWhatIsNoPair) {
  const std::string_view text = R"({"a" 1 "b" 2})";
  constexpr JsonToken object{kO, 0, 13, 4, -1};
  constexpr JsonToken a{kS, 2, 3, 0, 0}, one{kP, 5, 6, 0, 0};
  constexpr JsonToken b{kS, 8, 9, 0, 0}, two{kP, 11, 12, 0, 0};
  const struct {
    std::string_view name;
    std::vector<JsonToken> tokens;
    std::size_t members;
  } rows[] = {
      {"a number as a key", {object, one, two}, 0},
      {"a number as the second key", {object, a, one, two, b}, 1},
      {"a key without a value", {object, a}, 0},
      {"the second key without a value", {object, a, one, b}, 1},
      {"a key that belongs elsewhere", {object, {kS, 2, 3, 0, 5}, one, b, two}, 0},
      {"a value that belongs elsewhere", {object, a, {kP, 5, 6, 0, 1}, b, two}, 0},
      {"behind an open object", {object, a, {kO, 5, -1, 0, 0}, b, two}, 1},
      {"behind an open array", {object, a, {kA, 5, -1, 0, 0}, b, two}, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    for (const GuardSide side : {GuardSide::kAfter, GuardSide::kBefore}) {
      const HandMade made(text, row.tokens, side);
      JsonMembers members(made.doc(), 0);
      std::size_t seen = 0;
      for (const JsonMember member : members) {
        EXPECT_EQ(member.value, member.key + 1);
        ++seen;
      }
      EXPECT_EQ(seen, row.members);
      EXPECT_FALSE(members.well_formed());
      EXPECT_EQ(json_find(made.doc(), 0, "a"), row.members == 0 ? -1 : 2);
      EXPECT_EQ(json_find(made.doc(), 0, "b"), -1);
      EXPECT_EQ(json_find(made.doc(), 0, "1"), -1);
    }
  }
}

TEST(JsonMembers, AnOpenObjectHasNone) {
  const HandMade made(R"({"a" 1)", {{kO, 0, -1, 2, -1}, {kS, 2, 3, 0, 0}, {kP, 5, 6, 0, 0}},
                      GuardSide::kAfter);
  EXPECT_TRUE(walk_members(made.doc(), 0).members.empty());
  EXPECT_EQ(json_find(made.doc(), 0, "a"), -1);
}

// --- elements ---------------------------------------------------------------------------------

std::vector<int> elements_of(const JsonDoc& doc, int array) {
  std::vector<int> indices;
  for (const int element : JsonElements(doc, array)) indices.push_back(element);
  return indices;
}

TEST(JsonElements, IndicesInOrder) {
  const struct {
    std::string_view source;
    int tokens, array;
    std::vector<int> elements;
  } rows[] = {
      {"[]", 1, 0, {}},
      {"[0]", 2, 0, {1}},
      {R"(["",[],{},null])", 5, 0, {1, 2, 3, 4}},
      {R"([[1,[2]],{"a":[3],"b":4},5])", 12, 0, {1, 5, 11}},
      {R"([[1,[2]],{"a":[3],"b":4},5])", 12, 1, {2, 3}},
      {R"([[1,[2]],{"a":[3],"b":4},5])", 12, 3, {4}},
      {"[[],[]]", 3, 1, {}},
      {"[[],[]]", 3, 2, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    const ParsedText parsed(row.source, row.tokens);
    ASSERT_TRUE(parsed.ok());
    EXPECT_EQ(elements_of(parsed.doc(), row.array), row.elements);
  }
}

TEST(JsonElements, AnyOtherTokenHasNone) {
  const ParsedText parsed(R"({"a":{"b":1},"c":"d","e":null})", 9);
  ASSERT_TRUE(parsed.ok());
  for (const int index : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 1000}) {
    EXPECT_TRUE(elements_of(parsed.doc(), index).empty()) << index;
  }
}

TEST(JsonElements, EndBehindAnOpenOne) {
  for (const GuardSide side : {GuardSide::kAfter, GuardSide::kBefore}) {
    const HandMade open("[1,2", {{kA, 0, -1, 2, -1}, {kP, 1, 2, 0, 0}, {kP, 3, 4, 0, 0}}, side);
    EXPECT_EQ(elements_of(open.doc(), 0), (std::vector<int>{}));
    const HandMade inner("[1,[,2]",
                         {{kA, 0, 7, 3, -1}, {kP, 1, 2, 0, 0}, {kA, 3, -1, 0, 0}, {kP, 5, 6, 0, 0}},
                         side);
    EXPECT_EQ(elements_of(inner.doc(), 0), (std::vector<int>{1, 2}));
  }
}

}  // namespace
}  // namespace kova

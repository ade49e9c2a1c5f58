// Reading arguments.
#include "tools/tool_args.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/guard_page.h"

namespace kova::testing {
namespace {

// A parsed text that touches unreadable memory.
class Parsed {
 public:
  explicit Parsed(std::string_view json) : text_(json) {
    EXPECT_TRUE(json_parse(text_.view(), tokens_.data(), static_cast<int>(tokens_.size()), doc_))
        << json;
  }
  const JsonDoc& operator*() const { return doc_; }

 private:
  GuardedText text_;
  std::array<JsonToken, 256> tokens_;
  JsonDoc doc_;
};

bool allows(std::string_view json, int token = 0) {
  const Parsed parsed(json);
  return check_allowed_members(*parsed, token, {"sql", "max_rows", "_meta"});
}

TEST(CheckAllowedMembers, AcceptsTheAllowedOnesInAnyOrder) {
  for (const char* json :
       {"{}", "{ }", R"({"sql":1})", R"({"_meta":null,"max_rows":[],"sql":{}})",
        R"({"\u0073ql":1})", R"({"sql":{"other":1}})", R"({"sql":[{"other":{"x":[1,2]}}]})",
        R"({"sql":{"a":{},"b":[]},"max_rows":2})"})
    EXPECT_TRUE(allows(json)) << json;
}

TEST(CheckAllowedMembers, RefusesEveryOther) {
  for (const char* json :
       {R"({"other":1})", R"({"sql":1,"other":1})", R"({"other":1,"sql":1})", R"({"SQL":1})",
        R"({"":1})", R"({"sql ":1})", R"({"sq":1})", R"({"sqlx":1})", R"({"meta":1})",
        R"({"sql":{"sql":1},"x":{}})", R"({"\ud800":1})", R"({"\u0000":1})"})
    EXPECT_FALSE(allows(json)) << json;
}

TEST(CheckAllowedMembers, NeedsAnObject) {
  for (const char* json : {"[]", "[\"sql\"]", "\"sql\"", "1", "null", "true"})
    EXPECT_FALSE(allows(json)) << json;
  EXPECT_FALSE(allows("{}", -1));
  EXPECT_FALSE(allows("{}", 1));
}

TEST(CheckAllowedMembers, LooksAtTheObjectAlone) {
  // Token 2 is the inner object.
  EXPECT_TRUE(allows(R"({"other":{"sql":1},"more":1})", 2));
  EXPECT_FALSE(allows(R"({"sql":{"other":1},"max_rows":1})", 2));
  EXPECT_TRUE(allows(R"([[],{"sql":1},{"other":1}])", 2));
}

TEST(CheckAllowedMembers, KeysHaveAtMost63Bytes) {
  const std::string longest(63, 'k');
  const auto allows_key = [](const std::string& raw, std::string_view name) {
    const Parsed parsed("{\"" + raw + "\":1}");
    return check_allowed_members(*parsed, 0, {name});
  };
  EXPECT_TRUE(allows_key(longest, longest));
  EXPECT_FALSE(allows_key(longest + "k", longest + "k"));
  EXPECT_FALSE(allows_key(longest + "k", longest));
}

TEST(CheckAllowedMembers, NamesWhatItRefuses) {
  const auto blamed = [](std::string_view json, int token = 0) {
    const Parsed parsed(json);
    int found = -7;
    return check_allowed_members(*parsed, token, {"sql"}, &found) ? -9 : found;
  };
  EXPECT_EQ(blamed(R"({"sql":1})"), -9);
  EXPECT_EQ(blamed(R"({"sql":[1,2],"x":1,"y":2})"), 5);
  EXPECT_EQ(blamed("[1]"), 0);
  EXPECT_EQ(blamed("[1]", 1), 1);
  EXPECT_EQ(blamed("{}", -1), -1);
}

// What a judged call's trace shows of each kind of member.
TEST(ToolCallMembers, BlameWhatTheyRefuse) {
  const Parsed parsed(R"({"n":7,"s":"a b","list":[]})");
  CallTrace trace;
  const ToolCall call{.doc = *parsed, .arguments = 0, .trace = &trace};
  char text[64];
  std::uint32_t value = 0;
  const auto blamed = [&](bool accepted) {
    const int token = accepted ? -9 : trace.token;
    trace.token = -1;
    return token;
  };
  EXPECT_EQ(blamed(get_string_member(call, "s", text)), -9);
  EXPECT_EQ(blamed(get_string_member(call, "n", text)), 2);
  EXPECT_EQ(blamed(get_string_member(call, "none", text)), -1);
  EXPECT_EQ(blamed(get_identifier_member(call, "s", text)), 4);
  EXPECT_EQ(blamed(get_bounded_member(call, "n", 1, 7, value)), -9);
  EXPECT_EQ(blamed(get_bounded_member(call, "n", 8, 9, value)), 2);
  EXPECT_EQ(blamed(get_bounded_member(call, "list", 1, 9, value)), 6);
  EXPECT_EQ(blamed(check_allowed_members(call, {"n", "s"})), 5);
  EXPECT_EQ(blamed(check_allowed_members(call, {"n", "s", "list"})), -9);
  const ToolCall in_list{.doc = *parsed, .arguments = 6, .trace = &trace};
  EXPECT_EQ(blamed(get_string_member(in_list, "s", text)), 6);
  const ToolCall untraced{.doc = *parsed, .arguments = 0};
  EXPECT_FALSE(get_string_member(untraced, "n", text));
}

// Documents that no parser makes.
TEST(CheckAllowedMembers, RefusesKeysWithoutTheirValue) {
  constexpr JsonToken kObject = {JsonType::kObject, 0, 9, 2, -1};
  constexpr JsonToken kKey = {JsonType::kString, 2, 5, 0, 0};
  constexpr JsonToken kValue = {JsonType::kPrimitive, 7, 8, 0, 0};
  const auto accepts = [](std::initializer_list<JsonToken> tokens) {
    const JsonDoc doc = {
        .text = R"({"sql":1})", .tokens = tokens.begin(), .count = static_cast<int>(tokens.size())};
    return check_allowed_members(doc, 0, {"sql"});
  };
  EXPECT_TRUE(accepts({kObject}));
  EXPECT_TRUE(accepts({kObject, kKey, kValue}));
  EXPECT_FALSE(accepts({kObject, kKey}));
  EXPECT_FALSE(accepts({kObject, kValue, kValue}));
  EXPECT_FALSE(accepts({kObject, kKey, {JsonType::kPrimitive, 7, 8, 0, 1}}));
  EXPECT_FALSE(accepts({kObject, {JsonType::kString, 2, 5, 0, 2}, kValue}));
}

// A decoded text ends at an escaped NUL.
TEST(CheckAllowedMembers, ComparesUpToAnEscapedNul) {
  EXPECT_TRUE(allows(R"({"sql\u0000x":1})"));
}

TEST(GetStringMember, DecodesIntoItsRoom) {
  const Parsed parsed(R"({"a":"x\u00e9","b":"1234567","c":"12345678","d":5,"e":null,"f":""})");
  char text[8];
  EXPECT_TRUE(get_string_member(*parsed, 0, "a", text));
  EXPECT_STREQ(text, "x\xC3\xA9");
  EXPECT_TRUE(get_string_member(*parsed, 0, "b", text));
  EXPECT_STREQ(text, "1234567");
  EXPECT_TRUE(get_string_member(*parsed, 0, "f", text));
  EXPECT_STREQ(text, "");
  for (const char* key : {"c", "d", "e", "g", ""})
    EXPECT_FALSE(get_string_member(*parsed, 0, key, text)) << key;
  EXPECT_FALSE(get_string_member(*parsed, -1, "a", text));
}

// A look-up compares the key's source text.
TEST(GetStringMember, DoesNotFindAnEscapedSpelling) {
  const Parsed parsed(R"({"\u0061":"x"})");
  char text[8];
  EXPECT_FALSE(get_string_member(*parsed, 0, "a", text));
}

TEST(GetIdentifierMember, IsASafeName) {
  const auto reads = [](const std::string& json) {
    const Parsed parsed("{\"a\":" + json + "}");
    char text[64];
    return get_identifier_member(*parsed, 0, "a", text);
  };
  EXPECT_TRUE(reads("\"9_a\""));
  EXPECT_TRUE(reads("\"\\u0041\""));
  EXPECT_TRUE(reads("\"" + std::string(63, 'n') + "\""));
  EXPECT_FALSE(reads("\"" + std::string(64, 'n') + "\""));
  for (const char* json : {"\"\"", "\"a b\"", "\"a;\"", "\"a-b\"", "5", "null", "[\"a\"]"})
    EXPECT_FALSE(reads(json)) << json;
}

TEST(GetBoundedMember, IsWithinItsBounds) {
  struct Row {
    const char* json;
    bool good;
  };
  constexpr Row kRows[] = {
      {"0", false},          {"1", true},
      {"2", true},           {"256", true},
      {"257", false},        {"-1", false},
      {"5.0", false},        {"1e2", false},
      {"\"5\"", false},      {"null", false},
      {"true", false},       {"[5]", false},
      {"4294967297", false}, {"18446744073709551617", false},
      {"-0", false},
  };
  for (const Row& row : kRows) {
    const Parsed parsed("{\"a\":" + std::string(row.json) + "}");
    std::uint32_t value = 77;
    EXPECT_EQ(get_bounded_member(*parsed, 0, "a", 1, 256, value), row.good) << row.json;
    if (row.good) {
      EXPECT_EQ(std::to_string(value), row.json);
    }
  }
  const Parsed parsed("{}");
  std::uint32_t value = 77;
  EXPECT_FALSE(get_bounded_member(*parsed, 0, "a", 1, 256, value));
}

}  // namespace
}  // namespace kova::testing

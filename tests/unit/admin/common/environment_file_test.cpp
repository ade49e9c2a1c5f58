// Environment files: one row per rule.
#include "admin/common/environment_file.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "admin/common/refusal.h"

namespace kova::admin {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs parsed(std::string_view text) {
  Pairs pairs;
  for (const EnvironmentEntry& entry : parse_environment(text)) {
    pairs.emplace_back(entry.name, entry.value.view());
  }
  return pairs;
}

/// The value of the variable A on one line.
std::string value(const std::string& text) {
  const Pairs pairs = parsed("A=" + text);
  return pairs.size() == 1 ? pairs[0].second : "?";
}

TEST(EnvironmentFile, TakesLines) {
  EXPECT_EQ(parsed(""), Pairs{});
  EXPECT_EQ(parsed("A=1\nB=2"), (Pairs{{"A", "1"}, {"B", "2"}}));
  EXPECT_EQ(parsed("A=1\r\nB=2\r\n"), (Pairs{{"A", "1"}, {"B", "2"}}));
  EXPECT_EQ(parsed("\n  \t\n# x=1\n ; y=2\n  _a9 = 1\nA=2"), (Pairs{{"_a9", "1"}, {"A", "2"}}));
  EXPECT_EQ(parsed("A=1\nA=2"), (Pairs{{"A", "1"}, {"A", "2"}}));
  EXPECT_EQ(parsed("A="), (Pairs{{"A", ""}}));
}

TEST(EnvironmentFile, TakesUnquotedValues) {
  EXPECT_EQ(value("  a b \t "), "a b");
  EXPECT_EQ(value("a=b=c"), "a=b=c");
  EXPECT_EQ(value("a # b ; c"), "a # b ; c");
  EXPECT_EQ(value("a'b\"c"), "a'b\"c");
  EXPECT_EQ(value("a\\ "), "a ");
  EXPECT_EQ(value("a\\\\b\\c"), "a\\bc");
  EXPECT_EQ(value("gr\xC3\xBC\xC3\x9F"), "gr\xC3\xBC\xC3\x9F");
}

TEST(EnvironmentFile, TakesQuotedValues) {
  EXPECT_EQ(value("' a b '"), " a b ");
  EXPECT_EQ(value("'a\\n\"b'  "), "a\\n\"b");
  EXPECT_EQ(value("''"), "");
  EXPECT_EQ(value("\" a 'b' \""), " a 'b' ");
  EXPECT_EQ(value(R"("\"\\\`\$\n\a")"), R"("\`$\n\a)");
  EXPECT_EQ(value(R"("C:\\kova\\policy.json")"), R"(C:\kova\policy.json)");
  EXPECT_EQ(value(R"('C:\kova\policy.json')"), R"(C:\kova\policy.json)");
  EXPECT_EQ(value("\"# a\""), "# a");
  EXPECT_EQ(value("\"a\" 'b'"), "ab");
}

TEST(EnvironmentFile, RefusesWithTheLine) {
  const auto refusal_of = [](std::string_view text) -> std::string {
    try {
      static_cast<void>(parse_environment(text));
    } catch (const Refusal& refusal) {
      return refusal.what();
    }
    return "accepted";
  };
  const std::string open = "a quote is left open or the value continues on the next line";
  EXPECT_EQ(refusal_of("A=1\nB='x\ny'\n"), "line 2, column 3: " + open);
  EXPECT_EQ(refusal_of("\n\r\n\rA=\"x\n"), "line 4, column 3: " + open);
  EXPECT_EQ(refusal_of(" A = \"x\\\""), "line 1, column 6: " + open);
  EXPECT_EQ(refusal_of("A='x' \"x\\\ny\""), "line 1, column 7: " + open);
  EXPECT_EQ(refusal_of("A=x\\\ny"), "line 1, column 4: " + open);
  EXPECT_EQ(refusal_of("\t# x\\ \nA=1"), "line 1, column 5: a comment must not end in a backslash");
  EXPECT_EQ(refusal_of("A"), "line 1, column 1: there is no = in the line");
  EXPECT_EQ(refusal_of("  export A=1"), "line 1, column 3: the name of the variable is invalid");
  EXPECT_EQ(refusal_of("9A=1"), "line 1, column 1: the name of the variable is invalid");
  EXPECT_EQ(refusal_of("=1"), "line 1, column 1: the name of the variable is invalid");
  EXPECT_EQ(refusal_of("\xEF\xBB\xBF"
                       "A=1"),
            "line 1, column 1: the name of the variable is invalid");
  EXPECT_EQ(refusal_of(std::string_view("A=1\nB=\0", 7)), "line 2, column 3: a NUL byte");
  EXPECT_EQ(refusal_of("A=\xFF"), "line 1, column 3: the line is not UTF-8");
}

TEST(EnvironmentFile, NoRefusalHoldsAValue) {
  try {
    static_cast<void>(parse_environment("KOVA_MCP_APPROVAL_SECRET='hidden"));
    FAIL();
  } catch (const Refusal& refusal) {
    EXPECT_EQ(std::string(refusal.what()).find("hidden"), std::string::npos);
  }
}

}  // namespace
}  // namespace kova::admin

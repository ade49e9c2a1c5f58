// What policy_read tells beside the verdict: the place of the key that a refusal speaks of.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "json/json.h"
#include "policy/policy_file.h"
#include "support/environment.h"
#include "unit/policy/policy_document.h"

namespace kova::testing {
namespace {

/// Reads a text for any launch.
PolicyReading read(std::string_view text, bool valid) {
  const auto policy = std::make_unique<McpPolicy>();
  PolicyReading reading;
  reading.any_launch = true;
  EXPECT_EQ(policy_read(text, *policy, reading), valid) << policy->error;
  EXPECT_EQ(policy->valid, valid);
  EXPECT_TRUE(policy->configured);
  return reading;
}

void expect_place(std::string_view text, std::uint32_t line, std::uint32_t column) {
  const PolicyReading reading = read(text, false);
  EXPECT_EQ(reading.line, line) << text;
  EXPECT_EQ(reading.column, column) << text;
}

TEST(PolicyReading, AValidTextHasNoPlace) {
  const PolicyReading reading = read(PolicyDocument().text(), true);
  EXPECT_EQ(reading.line, 0U);
  EXPECT_EQ(reading.column, 0U);
}

TEST(PolicyReading, TheKeyOfABadValue) {
  const PolicyDocument good;
  std::uint32_t line = 1;
  // Each key stands on a line of its own; the first after the brace, the others after a blank.
  for (const std::string& key : good.keys()) {
    PolicyDocument bad;
    expect_place(bad.set(key, "7.5").text(), line, 2);
    ++line;
  }
}

TEST(PolicyReading, AMissingKeyHasNoPlace) {
  for (const std::string& key : PolicyDocument().keys()) {
    expect_place(PolicyDocument().remove(key).text(), 0, 0);
  }
}

TEST(PolicyReading, TheSecondOfTwoKeys) {
  expect_place(PolicyDocument().add("name", "\"x\"").text(), 17, 2);
  expect_place(PolicyDocument().add("extra", "1").text(), 17, 2);
}

TEST(PolicyReading, AnotherLaunchIsAnErrorUnlessAllAreTaken) {
  const struct {
    const char* other;
    std::uint32_t line;
  } rows[] = {{"KOVA_MCP_CLIENT_ID", 3}, {"KOVA_MCP_DATABASE", 4}, {"KOVA_MCP_USER", 5}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.other);
    ScopedEnvironment client("KOVA_MCP_CLIENT_ID", "desk-7.client_A");
    ScopedEnvironment database("KOVA_MCP_DATABASE", "SHOP");
    ScopedEnvironment user("KOVA_MCP_USER", "reader-1.x");
    const ScopedEnvironment other(row.other, "other");
    const auto policy = std::make_unique<McpPolicy>();
    PolicyReading reading;
    EXPECT_FALSE(policy_read(PolicyDocument().text(), *policy, reading));
    EXPECT_STREQ(policy->error, "MCP launch identity does not match named policy");
    EXPECT_EQ(reading.line, row.line);
    EXPECT_EQ(reading.column, 2U);
  }
}

TEST(PolicyReading, JsonThatIsNoObjectIsToBlameFromItsBeginning) {
  for (const char* text : {"[1]", "1", "\"name\"", "null"}) expect_place(text, 1, 1);
  expect_place("\xEF\xBB\xBF[1]", 1, 4);
}

TEST(PolicyReading, NothingIsLeftOfWhatTheRecordHeld) {
  const auto policy = std::make_unique<McpPolicy>();
  PolicyReading reading;
  reading.any_launch = true;
  ASSERT_TRUE(policy_read(PolicyDocument().text(), *policy, reading));
  EXPECT_EQ(policy->write_type_mask, kInsert);
  const std::string updates = PolicyDocument().set("write_types", "[\"UPDATE\"]").text();
  ASSERT_TRUE(policy_read(updates, *policy, reading));
  EXPECT_EQ(policy->write_type_mask, kUpdate);
  EXPECT_FALSE(policy_read("{}", *policy, reading));
  EXPECT_EQ(policy->allowed_tables.count, 0U);
  EXPECT_STREQ(policy->name, "");
}

TEST(PolicyReading, TheStateDirectoryOfAnotherMachine) {
  const std::string text = PolicyDocument().with_approved_writes("no such").text();
  expect_place(text, 16, 2);
  const auto policy = std::make_unique<McpPolicy>();
  PolicyReading reading;
  reading.any_launch = reading.any_machine = true;
  EXPECT_TRUE(policy_read(text, *policy, reading));
}

TEST(PolicyReading, SizesHaveNoPlace) {
  expect_place("", 0, 0);
  expect_place(std::string(kPolicyFileLimit + 1, ' '), 0, 0);
}

struct Stop {
  std::string_view text;
  std::size_t stopped;
};

constexpr Stop kStops[] = {{"", 0},           {"  x", 2},   {"[1,]", 3}, {"{\"a\":1,\"b\" 2}", 11},
                           {"\"\xC3\"", 1},   {"[1] 2", 4}, {"[\"a", 3}, {"\"\x01\"", 1},
                           {"{\"a\":tru}", 5}};

TEST(PolicyReading, WhereJsonStops) {
  JsonToken tokens[16];
  JsonDoc doc;
  for (const Stop& row : kStops) {
    std::size_t stopped = 99;
    EXPECT_FALSE(json_parse(row.text, tokens, 16, doc, &stopped)) << row.text;
    EXPECT_EQ(stopped, row.stopped) << row.text;
  }
  expect_place("\xEF\xBB\xBF{\n \"version\": 1,\n oops", 3, 2);
}

}  // namespace
}  // namespace kova::testing

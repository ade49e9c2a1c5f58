// Running statements: bounds and failures.
#include "db/statement.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "support/allocation_failure.h"
#include "unit/db/session_fixture.h"

namespace kova::testing {
namespace {

constexpr char kBounds[] = "invalid database execution bounds";
constexpr char kNoSession[] = "authenticated Vantreo profile is unavailable";
constexpr char kFailed[] = "database statement failed";
constexpr char kByteLimit[] = "database result byte limit exceeded";

class StatementTest : public EngineSession {
 protected:
  bool run(const char* sql, std::uint32_t max_rows = 100) {
    return execute_statement(session, sql, max_rows, result);
  }
  bool run(const std::string& sql, std::uint32_t max_rows = 100) {
    return run(sql.c_str(), max_rows);
  }
  void expect_failure(std::string_view words) const {
    EXPECT_EQ(result.error, words);
    EXPECT_EQ(result.text, nullptr);
    EXPECT_EQ(result.textLength, 0U);
    EXPECT_EQ(result.rowCount, 0U);
    EXPECT_FALSE(result.truncated);
  }
  void expect_result(std::string_view json, std::uint32_t rows, bool truncated) const {
    ASSERT_NE(result.text, nullptr) << result.error;
    EXPECT_EQ(result.text, json);
    EXPECT_EQ(result.textLength, json.size());
    EXPECT_EQ(result.rowCount, rows);
    EXPECT_EQ(result.truncated, truncated);
    EXPECT_STREQ(result.error, "");
  }

  StatementResult result;
};

FakeResult rows_of(const std::string& name, int count) {
  FakeResult answer = {.status = name, .columns = {"C"}};
  for (int i = 0; i < count; ++i) answer.rows.push_back({std::to_string(i)});
  return answer;
}

TEST_F(StatementTest, GivesTheResult) {
  library.answer("select 1;", rows_of("fine", 2));
  EXPECT_TRUE(run("select 1;"));
  expect_result(
      R"({"status":"fine","columns":["C"],"rows":[["0"],["1"]],"rowCount":2,"truncated":false})", 2,
      false);
  EXPECT_EQ(library.statements(), (Calls{"select 1;"}));
}

TEST_F(StatementTest, IsTruncatedAtTheBound) {
  library.answer("s", rows_of("", 1));
  EXPECT_TRUE(run("s", 1));
  expect_result(R"({"status":"","columns":["C"],"rows":[["0"]],"rowCount":1,"truncated":true})", 1,
                true);
}

TEST_F(StatementTest, HasUpTo32768Bytes) {
  const std::string longest(32768, 's');
  EXPECT_TRUE(run(longest));
  EXPECT_EQ(library.statements(), (Calls{longest}));
  EXPECT_FALSE(run(longest + "s"));
  expect_failure(kBounds);
  EXPECT_FALSE(run(""));
  expect_failure(kBounds);
  EXPECT_FALSE(run(nullptr));
  expect_failure(kBounds);
  EXPECT_EQ(library.statements().size(), 1U);
}

TEST_F(StatementTest, AsksForOneTo256Rows) {
  EXPECT_FALSE(run("s", 0));
  expect_failure(kBounds);
  EXPECT_FALSE(run("s", 257));
  expect_failure(kBounds);
  EXPECT_FALSE(run("s", 4294967295U));
  expect_failure(kBounds);
  library.answer("s", rows_of("", 300));
  EXPECT_TRUE(run("s", 1));
  EXPECT_EQ(result.rowCount, 1U);
  EXPECT_TRUE(run("s", 256));
  EXPECT_EQ(result.rowCount, 256U);
  EXPECT_TRUE(result.truncated);
}

TEST_F(StatementTest, ChecksTheBoundsBeforeTheSession) {
  library.missing = true;
  EXPECT_FALSE(run(""));
  expect_failure(kBounds);
  EXPECT_FALSE(session.attempted);
  EXPECT_EQ(library.calls(), Calls{});
  EXPECT_FALSE(run("s"));
  expect_failure(kNoSession);
}

TEST_F(StatementTest, NeedsASession) {
  password_variable.unset();
  EXPECT_FALSE(run("s"));
  expect_failure(kNoSession);
  EXPECT_FALSE(run("s"));
  expect_failure(kNoSession);
  EXPECT_EQ(library.calls(), Calls{});
}

TEST_F(StatementTest, SucceedsWithEveryResultAbove0) {
  for (const std::int64_t code :
       {std::int64_t{1}, std::int64_t{2}, std::int64_t{4294967296}, std::int64_t{2147483648},
        std::int64_t{1} << 62, std::numeric_limits<std::int64_t>::max()}) {
    library.answer("s", {.code = code});
    EXPECT_TRUE(run("s")) << code;
  }
  for (const std::int64_t code :
       {std::int64_t{0}, std::int64_t{-1}, std::int64_t{-4294967296},
        std::numeric_limits<std::int64_t>::min(), std::int64_t{-4294967295}}) {
    library.answer("s", {.code = code, .status = "no"});
    EXPECT_FALSE(run("s")) << code;
    expect_failure("no");
  }
}

TEST_F(StatementTest, FailsWithTheLibrarysMessage) {
  library.answer("s", {.code = 0, .status = "no such table: \"T\"\n"});
  EXPECT_FALSE(run("s"));
  expect_failure("no such table: \"T\"\n");
  library.answer("s", {.code = 0, .status = std::string(255, 'w')});
  EXPECT_FALSE(run("s"));
  expect_failure(std::string(255, 'w'));
  library.answer("s", {.code = 0, .status = std::string(256, 'w')});
  EXPECT_FALSE(run("s"));
  expect_failure(std::string(255, 'w'));
  library.answer("s", {.code = 0, .status = std::string(40000, 'w')});
  EXPECT_FALSE(run("s"));
  expect_failure(std::string(255, 'w'));
}

// A reply line stays UTF-8 where the engine's text is.
TEST_F(StatementTest, AnErrorTextIsCutBetweenTwoCharacters) {
  const std::string euro = "\xE2\x82\xAC";
  for (const std::size_t before : {253U, 254U}) {
    const std::string text(before, 'w');
    library.answer("s", {.code = 0, .status = text + euro + "x"});
    EXPECT_FALSE(run("s"));
    expect_failure(text);
  }
  library.answer("s", {.code = 0, .status = std::string(252, 'w') + euro + "x"});
  EXPECT_FALSE(run("s"));
  expect_failure(std::string(252, 'w') + euro);
  // No character there: the bytes are cut where the room ends.
  library.answer("s", {.code = 0, .status = std::string(254, 'w') + "\xE2\x82xx"});
  EXPECT_FALSE(run("s"));
  expect_failure(std::string(254, 'w') + "\xE2");
}

TEST_F(StatementTest, FailsInItsOwnWordsWithoutTheLibrarys) {
  library.answer("s", {.code = 0, .status = ""});
  EXPECT_FALSE(run("s"));
  expect_failure(kFailed);
  library.answer("s", {.code = 0, .status = std::nullopt});
  EXPECT_FALSE(run("s"));
  expect_failure(kFailed);
}

TEST_F(StatementTest, ReadsNothingButTheStatusAfterAFailure) {
  ASSERT_TRUE(run("first"));
  library.answer("s", {.code = 0});
  library.forget_calls();
  EXPECT_FALSE(run("s"));
  EXPECT_EQ(library.count("field_count"), 0);
  EXPECT_EQ(library.count("next"), 0);
}

TEST_F(StatementTest, AFailureLeavesTheSession) {
  library.answer("s", {.code = 0});
  EXPECT_FALSE(run("s"));
  library.answer("s", {.columns = {"C"}, .rows = {{std::string(16385, 'x')}}});
  EXPECT_FALSE(run("s"));
  expect_failure("database cell limit exceeded");
  library.answer("s", {.field_count = 65});
  EXPECT_FALSE(run("s"));
  expect_failure("database result column limit exceeded");
  EXPECT_TRUE(run("t"));
  EXPECT_EQ(library.count("exec login"), 1);
  EXPECT_EQ(library.count("free_object"), 0);
}

TEST_F(StatementTest, ARecordIsUsedAgain) {
  library.answer("s", rows_of("", 3));
  ASSERT_TRUE(run("s", 3));
  library.answer("s", {.code = 0, .status = "no"});
  EXPECT_FALSE(run("s"));
  expect_failure("no");
  library.answer("s", rows_of("", 0));
  EXPECT_TRUE(run("s"));
  expect_result(R"({"status":"","columns":["C"],"rows":[],"rowCount":0,"truncated":false})", 0,
                false);
}

TEST_F(StatementTest, ReleaseZeroesTheRecord) {
  library.answer("s", rows_of("", 1));
  ASSERT_TRUE(run("s", 1));
  result.release();
  expect_failure("");
  result.release();
  expect_failure("");
  EXPECT_FALSE(run(""));
  result.release();
  expect_failure("");
}

TEST_F(StatementTest, FailsWithoutMemoryForTheResult) {
  ASSERT_TRUE(run("first"));
  library.answer("s", {.columns = {"C"}, .rows = {{std::string(6000, 'x')}}});
  for (int nth = 1; nth <= 2; ++nth) {
    std::optional<AllocationFailure> failure;
    library.on_exec = [&](const char*) { failure.emplace(nth); };
    EXPECT_FALSE(run("s"));
    failure.reset();
    expect_failure(kByteLimit);
  }
  library.on_exec = nullptr;
  EXPECT_TRUE(run("s"));
}

TEST_F(StatementTest, FailsAboveTheLimit) {
  FakeResult large = {.columns = {"C"}};
  for (int i = 0; i < 65; ++i) large.rows.push_back({std::string(16384, 'x')});
  library.answer("s", large);
  EXPECT_FALSE(run("s"));
  expect_failure(kByteLimit);
}

}  // namespace
}  // namespace kova::testing

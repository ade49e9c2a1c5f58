// The three statements of a hybrid search.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "db/statement.h"
#include "tools/hybrid_search_tool.h"
#include "unit/db/session_fixture.h"

namespace kova::testing {
namespace {

constexpr char kBounds[] = "invalid database execution bounds";

class HybridStatementsTest : public EngineSession {
 protected:
  bool run(std::uint32_t top = 100) {
    return run_hybrid_statements(session, "search", "select", "drop", top, result);
  }
  void expect_failure(std::string_view message) const {
    EXPECT_EQ(result.error, message);
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

TEST_F(HybridStatementsTest, RunInTheirOrder) {
  library.answer("search", rows_of("s", 2));
  library.answer("select", rows_of("m", 2));
  library.answer("drop", rows_of("c", 2));
  EXPECT_TRUE(run());
  expect_result(
      R"({"status":"m","columns":["C"],"rows":[["0"],["1"]],"rowCount":2,"truncated":false})", 2,
      false);
  EXPECT_EQ(library.statements(), (Calls{"search", "select", "drop"}));
}

TEST_F(HybridStatementsTest, TheSearchMayFail) {
  library.answer("search", {.code = 0, .status = "no room"});
  EXPECT_FALSE(run());
  expect_failure("no room");
  EXPECT_EQ(library.statements(), (Calls{"search"}));
}

TEST_F(HybridStatementsTest, TheDropFollowsAFailure) {
  library.answer("search", rows_of("s", 1));
  library.answer("select", {.code = 0, .status = "select failed"});
  EXPECT_FALSE(run());
  expect_failure("select failed");
  EXPECT_EQ(library.statements(), (Calls{"search", "select", "drop"}));
}

TEST_F(HybridStatementsTest, TheDropMayFail) {
  library.answer("select", rows_of("m", 1));
  library.answer("drop", {.code = 0, .status = "drop failed"});
  EXPECT_TRUE(run());
  expect_result(R"({"status":"m","columns":["C"],"rows":[["0"]],"rowCount":1,"truncated":false})",
                1, false);
  library.answer("select", {.code = 0, .status = "select failed"});
  EXPECT_FALSE(run());
  expect_failure("select failed");
}

// The search and the select have the caller's bound, the drop one row.
TEST_F(HybridStatementsTest, EachHasItsBound) {
  for (const char* statement : {"search", "select", "drop"})
    library.answer(statement, rows_of(statement, 9));
  EXPECT_TRUE(run(3));
  EXPECT_EQ(result.rowCount, 3U);
  EXPECT_EQ(library.count("next"), 3 + 3 + 1);
}

TEST_F(HybridStatementsTest, TheBoundsAreChecked) {
  EXPECT_FALSE(run(0));
  expect_failure(kBounds);
  EXPECT_FALSE(run(257));
  expect_failure(kBounds);
  EXPECT_EQ(library.statements(), Calls{});
  const std::string long_statement(32769, 's');
  EXPECT_FALSE(run_hybrid_statements(session, "search", long_statement.c_str(), "drop", 1, result));
  expect_failure(kBounds);
  EXPECT_EQ(library.statements(), (Calls{"search", "drop"}));
}

}  // namespace
}  // namespace kova::testing

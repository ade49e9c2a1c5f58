// The JSON of a result, and the calls that read it.
#include "db/result_json.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "db/statement.h"
#include "support/allocation_failure.h"
#include "support/fake_library.h"

namespace kova::testing {
namespace {

constexpr const char kColumnMessage[] = "database result column limit exceeded";
constexpr const char kCellMessage[] = "database cell limit exceeded";
constexpr const char kByteMessage[] = "database result byte limit exceeded";

using Calls = std::vector<std::string>;

class ResultJson : public ::testing::Test {
 protected:
  /// Composes the JSON of this result and checks that nothing failed.
  std::string compose(const FakeResult& result, std::uint32_t max_rows = 256) {
    OutBuf out;
    EXPECT_TRUE(compose_into(out, result, max_rows)) << message;
    return out.text();
  }
  /// The message of the failure.
  std::string failure(const FakeResult& result, std::uint32_t max_rows = 256) {
    OutBuf out;
    return compose_into(out, result, max_rows) ? "" : message;
  }
  bool compose_into(OutBuf& out, const FakeResult& result, std::uint32_t max_rows) {
    library.answer("s", result);
    const ClientLibrary& operations = FakeLibrary::operations();
    void* object = operations.new_object(operations.start(operations.create_instance(), 0, "", ""));
    operations.exec(object, "s");
    library.forget_calls();
    return compose_result_json(operations, object, max_rows, out, rows, message);
  }

  FakeLibrary library;
  std::uint32_t rows = 77;
  char message[kStatementErrorCapacity] = {};
};

// A result whose JSON has exactly this size: 65 rows of one cell, of which the last one makes up
// the size.
FakeResult result_of_size(std::size_t size) {
  constexpr int kRows = 65;
  FakeResult result;
  result.status = "";
  result.columns = {"c"};
  const std::string frame =
      R"({"status":"","columns":["c"],"rows":[],"rowCount":65,"truncated":false})";
  std::size_t left = size - frame.size();
  const std::size_t usual = left / kRows;
  for (int row = 0; row < kRows; ++row) {
    const std::size_t whole = row + 1 < kRows ? usual : left;
    const std::size_t syntax = row == 0 ? 4 : 5;
    result.rows.push_back({std::string(whole - syntax, 'x')});
    left -= whole;
  }
  return result;
}

TEST_F(ResultJson, OfNothing) {
  EXPECT_EQ(compose({.status = "OK"}),
            R"({"status":"OK","columns":[],"rows":[],"rowCount":0,"truncated":false})");
  EXPECT_EQ(rows, 0U);
}

TEST_F(ResultJson, OfTwoRows) {
  EXPECT_EQ(
      compose(
          {.status = "2 rows", .columns = {"ID", "NAME"}, .rows = {{"1", "axe"}, {"2", "saw"}}}),
      R"({"status":"2 rows","columns":["ID","NAME"],"rows":[["1","axe"],["2","saw"]],)"
      R"("rowCount":2,"truncated":false})");
  EXPECT_EQ(rows, 2U);
}

TEST_F(ResultJson, WritesNullTextsAsEmptyOnes) {
  EXPECT_EQ(compose({.status = std::nullopt,
                     .columns = {std::nullopt, "B"},
                     .rows = {{"x", std::nullopt}, {std::nullopt, std::nullopt}}}),
            R"({"status":"","columns":["","B"],"rows":[["x",""],["",""]],"rowCount":2,)"
            R"("truncated":false})");
}

TEST_F(ResultJson, EscapesEveryText) {
  const std::string text = "\"\\\n\x01\xC3\b";
  const std::string json = "\"\\\"\\\\\\n\\u0001\xC3\\u0008\"";
  EXPECT_EQ(compose({.status = text, .columns = {text}, .rows = {{text}}}),
            "{\"status\":" + json + ",\"columns\":[" + json + "],\"rows\":[[" + json +
                "]],\"rowCount\":1,\"truncated\":false}");
}

TEST_F(ResultJson, ReadsCountStatusNamesAndRowsInThisOrder) {
  compose({.columns = {"A", "B"}, .rows = {{"1", "2"}, {"3", "4"}}});
  EXPECT_EQ(library.calls(), (Calls{"field_count", "status", "field_name 1", "field_name 2", "next",
                                    "data 1", "data 2", "next", "data 1", "data 2", "next"}));
}

TEST_F(ResultJson, AsksForNoRowAfterTheLastBoundedOne) {
  const FakeResult result = {.status = "", .columns = {"A"}, .rows = {{"1"}, {"2"}, {"3"}}};
  EXPECT_EQ(compose(result, 2),
            R"({"status":"","columns":["A"],"rows":[["1"],["2"]],"rowCount":2,"truncated":true})");
  EXPECT_EQ(library.calls(),
            (Calls{"field_count", "status", "field_name 1", "next", "data 1", "next", "data 1"}));
  EXPECT_EQ(rows, 2U);
}

TEST_F(ResultJson, IsTruncatedWheneverTheBoundIsReached) {
  const FakeResult result = {.status = "", .columns = {"A"}, .rows = {{"1"}}};
  EXPECT_EQ(compose(result, 1),
            R"({"status":"","columns":["A"],"rows":[["1"]],"rowCount":1,"truncated":true})");
  EXPECT_EQ(compose(result, 2),
            R"({"status":"","columns":["A"],"rows":[["1"]],"rowCount":1,"truncated":false})");
}

TEST_F(ResultJson, OfRowsWithoutColumns) {
  const FakeResult result = {.status = "", .columns = {}, .rows = {{}, {}}};
  EXPECT_EQ(compose(result),
            R"({"status":"","columns":[],"rows":[[],[]],"rowCount":2,"truncated":false})");
}

TEST_F(ResultJson, HasAtMost64Columns) {
  FakeResult result;
  std::string names;
  std::string cells;
  result.rows.emplace_back();
  for (int i = 0; i < 64; ++i) {
    result.columns.emplace_back("C" + std::to_string(i));
    result.rows[0].emplace_back(std::to_string(i));
    names += (i == 0 ? "\"C" : ",\"C") + std::to_string(i) + "\"";
    cells += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\"";
  }
  EXPECT_EQ(compose(result), "{\"status\":\"OK\",\"columns\":[" + names + "],\"rows\":[[" + cells +
                                 "]],\"rowCount\":1,\"truncated\":false}");
  result.columns.emplace_back("C64");
  EXPECT_EQ(failure(result), kColumnMessage);
}

// The count is the first thing that is read.
TEST_F(ResultJson, RefusesCountsOver64AndBelow0) {
  for (const int count : {65, 66, 1000, 2147483647, -1, -64, -2147483647 - 1}) {
    EXPECT_EQ(failure({.field_count = count}), kColumnMessage) << count;
    EXPECT_EQ(library.calls(), (Calls{"field_count"})) << count;
  }
}

TEST_F(ResultJson, ACellHasAtMost16384Bytes) {
  const std::string cell(16384, 'x');
  EXPECT_EQ(compose({.status = "", .columns = {"A"}, .rows = {{cell}}}),
            R"({"status":"","columns":["A"],"rows":[[")" + cell +
                R"("]],"rowCount":1,"truncated":false})");
  EXPECT_EQ(failure({.columns = {"A"}, .rows = {{cell + "x"}}}), kCellMessage);
  EXPECT_EQ(failure({.columns = {"A", "B"}, .rows = {{"1", "2"}, {"3", cell + "x"}}}),
            kCellMessage);
  // Bytes before escaping count.
  EXPECT_EQ(failure({.columns = {"A"}, .rows = {{std::string(16384, '\x01')}}}), "");
  EXPECT_EQ(failure({.columns = {"A"}, .rows = {{std::string(16385, '"')}}}), kCellMessage);
}

TEST_F(ResultJson, RowsBeyondTheBoundAreNotLookedAt) {
  EXPECT_EQ(failure({.columns = {"A"}, .rows = {{"1"}, {std::string(16385, 'x')}}}, 1), "");
}

TEST_F(ResultJson, CutsStatusAndNamesAt16384Bytes) {
  const std::string kept(16384, 'k');
  EXPECT_EQ(compose({.status = kept + "cut", .columns = {kept + "cut"}}),
            "{\"status\":\"" + kept + "\",\"columns\":[\"" + kept +
                "\"],\"rows\":[],\"rowCount\":0,\"truncated\":false}");
}

TEST_F(ResultJson, HasAtMost1048575Bytes) {
  const std::string json = compose(result_of_size(1048575));
  EXPECT_EQ(json.size(), 1048575U);
  EXPECT_TRUE(json.ends_with(R"(x"]],"rowCount":65,"truncated":false})"));
  EXPECT_EQ(failure(result_of_size(1048576)), kByteMessage);
}

TEST_F(ResultJson, TheLimitCountsAfterEscaping) {
  FakeResult result = {.columns = {"A"}};
  // 6 bytes for each one: 11 such cells are over the limit, 10 are not.
  for (int row = 0; row < 10; ++row) result.rows.push_back({std::string(16384, '\x02')});
  EXPECT_EQ(failure(result), "");
  result.rows.push_back({std::string(16384, '\x02')});
  EXPECT_EQ(failure(result), kByteMessage);
}

// The cell that is too long is met before the one that no longer fits.
TEST_F(ResultJson, TheFirstFailureSpeaks) {
  FakeResult result = {.columns = {"A"}};
  for (int row = 0; row < 63; ++row) result.rows.push_back({std::string(16384, 'x')});
  result.rows.push_back({std::string(16385, 'x')});
  EXPECT_EQ(failure(result), kCellMessage);
  result.rows.insert(result.rows.begin(), {std::string(16384, '\x02')});
  EXPECT_EQ(failure(result), kByteMessage);
}

TEST_F(ResultJson, FailsWithoutMemory) {
  const FakeResult result = {.columns = {"A"}, .rows = {{std::string(9000, 'x')}}};
  library.answer("s", result);
  const ClientLibrary& operations = FakeLibrary::operations();
  void* object = operations.new_object(operations.start(operations.create_instance(), 0, "", ""));
  for (int nth = 1; nth <= 3; ++nth) {
    operations.exec(object, "s");
    OutBuf out;
    bool composed = false;
    bool happened = false;
    message[0] = '\0';
    {
      const AllocationFailure refused(nth);
      composed = compose_result_json(operations, object, 256, out, rows, message);
      happened = AllocationFailure::happened();
    }
    // Two allocations: 4,096 bytes, then 16,384.
    EXPECT_EQ(happened, nth <= 2) << nth;
    EXPECT_EQ(composed, !happened) << nth;
    EXPECT_STREQ(message, happened ? kByteMessage : "") << nth;
  }
}

}  // namespace
}  // namespace kova::testing

// Where audit records go, and whom they name.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "unit/audit/audit_file.h"

namespace kova::testing {
namespace {

TEST_F(AuditFile, IsNotMadeWithoutAPath) {
  path_variable.unset();
  write();
  path_variable.set("");
  write();
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(AuditFile, HasOneLinePerCall) {
  write({true, 3, 44});
  write({false, 0, 0});
  const std::regex lines(
      R"(\{"timestamp":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z","correlation_id":"7",)"
      R"("client_identity":"desk-7","database_identity":"SHOP","tool":"kova_query",)"
      R"("policy":"m8-read-only","policy_decision":"allow","objects":"","duration_ms":\d+,)"
      R"("rows":3,"bytes":44,"status":"ok","error_class":"none"\})"
      "\r\n"
      R"(\{"timestamp":[^\r\n]*,"rows":0,"bytes":0,"status":"error",)"
      R"("error_class":"tool_error"\})"
      "\r\n");
  EXPECT_TRUE(std::regex_match(content(), lines)) << content();
}

TEST_F(AuditFile, MeasuresTheDurationByTheTickCount) {
  context.started_ms = tick_ms() - 5000;
  write_audit_record(context, *policy, {true, 1, 2});
  const std::regex duration("\"duration_ms\":(\\d+),");
  std::smatch match;
  const std::string text = content();
  ASSERT_TRUE(std::regex_search(text, match, duration)) << text;
  EXPECT_GE(std::stoi(match[1]), 5000);
  EXPECT_LT(std::stoi(match[1]), 65000);
}

TEST_F(AuditFile, IsAppendedTo) {
  write_file(path, "earlier, without a line end");
  write();
  EXPECT_EQ(content().substr(0, 41), "earlier, without a line end{\"timestamp\":\"");
}

TEST_F(AuditFile, MayBeRemovedBetweenCalls) {
  write();
  ASSERT_TRUE(std::filesystem::remove(path));
  write();
  EXPECT_EQ(lines_in(content()), 1);
}

TEST_F(AuditFile, NamesTheClient) {
  EXPECT_TRUE(next_record_holds("\"client_identity\":\"desk-7\""));
  client_variable.set("");
  EXPECT_TRUE(next_record_holds("\"client_identity\":\"unconfigured\""));
  client_variable.unset();
  EXPECT_TRUE(next_record_holds("\"client_identity\":\"unconfigured\""));
  client_variable.set("a\"b");
  EXPECT_TRUE(next_record_holds("\"client_identity\":\"a\\\"b\""));
  client_variable.set("caf\xC3\xA9");
  EXPECT_TRUE(next_record_holds("\"client_identity\":\"caf__\""));
}

TEST_F(AuditFile, NamesTheDatabase) {
  EXPECT_TRUE(next_record_holds("\"database_identity\":\"SHOP\""));
  database_variable.set("");
  EXPECT_TRUE(next_record_holds("\"database_identity\":\"default\""));
  database_variable.unset();
  EXPECT_TRUE(next_record_holds("\"database_identity\":\"default\""));
}

TEST_F(AuditFile, NamesThePolicy) {
  EXPECT_TRUE(next_record_holds("\"policy\":\"m8-read-only\""));
  TextOut(policy->name).copy_cut("Demo_1");
  EXPECT_TRUE(next_record_holds("\"policy\":\"m8-read-only\""));
  policy->configured = true;
  EXPECT_TRUE(next_record_holds("\"policy\":\"Demo_1\""));
  policy->valid = false;
  EXPECT_TRUE(next_record_holds("\"policy\":\"Demo_1\""));
  // A policy that failed before its name was read has none.
  policy->name[0] = '\0';
  EXPECT_TRUE(next_record_holds("\"policy\":\"\""));
}

TEST_F(AuditFile, MayHaveAPathOf259Characters) {
  path = folder.file(std::string(259 - folder.path().size() - 1, 'a'));
  ASSERT_EQ(path.size(), 259U);
  path_variable.set(path);
  write();
  EXPECT_EQ(lines_in(content()), 1);
  path_variable.set(path + "a");
  write();
  path_variable.set(path + std::string(3000, 'a'));
  write();
  EXPECT_EQ(lines_in(content()), 1);
  EXPECT_FALSE(std::filesystem::exists(path + "a"));
}

TEST_F(AuditFile, MayHaveAPathBeyondAscii) {
  path = folder.file(
      "pr\xC3\xBC"
      "fung-\xE6\x96\xB9.jsonl");
  path_variable.set(path);
  write();
  EXPECT_EQ(lines_in(content()), 1);
}

TEST_F(AuditFile, ThatCannotBeOpenedIsNoError) {
  path_variable.set(folder.file("missing/audit.jsonl"));
  write();
  path_variable.set(folder.path());
  write();
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(AuditFile, HasEveryRecordOfSeveralThreadsWhole) {
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i)
    writers.emplace_back([this] {
      for (int record = 0; record < 25; ++record)
        write_audit_record(context, *policy, {true, 1, 2});
    });
  for (std::thread& writer : writers) writer.join();
  const std::string text = content();
  const std::regex line(
      R"(\{"timestamp":"[^"]*","correlation_id":"7",[^\r\n]*,"error_class":"none"\})");
  int whole = 0;
  for (std::size_t start = 0; start < text.size(); ++whole) {
    const std::size_t end = text.find("\r\n", start);
    ASSERT_NE(end, std::string::npos);
    ASSERT_TRUE(std::regex_match(text.substr(start, end - start), line));
    start = end + 2;
  }
  EXPECT_EQ(whole, 100);
}

}  // namespace
}  // namespace kova::testing

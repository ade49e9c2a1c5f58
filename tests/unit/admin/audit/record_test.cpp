// Records of the audit file, read from their lines.
#include "admin/audit/record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "audit/audit.h"
#include "support/guard_page.h"

namespace kova::admin {
namespace {

const std::string kLine =
    R"({"timestamp":"2026-11-21T11:45:51.158Z","correlation_id":"3","client_identity":"desk",)"
    R"("database_identity":"SALES","tool":"kova_query","policy":"reads","policy_decision":"allow",)"
    R"("objects":"policy-select","duration_ms":13,"rows":3,"bytes":119,"status":"ok",)"
    R"("error_class":"none"})";

std::string changed(const std::string& from, const std::string& to) {
  std::string line = kLine;
  const std::size_t place = line.find(from);
  EXPECT_NE(place, std::string::npos) << from;
  return line.replace(place, from.size(), to);
}

bool readable(const std::string& line) {
  AuditRecordReader reader;
  AuditRecord record;
  return reader.read(line, record);
}

void expect_the_record(const std::string& line) {
  AuditRecordReader reader;
  AuditRecord record;
  ASSERT_TRUE(reader.read(line, record)) << line;
  EXPECT_EQ(time_text(record.time), "2026-11-21T11:45:51.158Z");
  EXPECT_EQ(record.timestamp, "2026-11-21T11:45:51.158Z");
  EXPECT_EQ(record.correlation_id, "3");
  EXPECT_EQ(record.client, "desk");
  EXPECT_EQ(record.database, "SALES");
  EXPECT_EQ(record.tool, "kova_query");
  EXPECT_EQ(record.policy, "reads");
  EXPECT_EQ(record.decision, "allow");
  EXPECT_EQ(record.objects, "policy-select");
  EXPECT_EQ(record.duration_ms, 13U);
  EXPECT_EQ(record.rows, 3U);
  EXPECT_EQ(record.bytes, 119U);
  EXPECT_EQ(record.status, "ok");
  EXPECT_EQ(record.error_class, "none");
}

TEST(AuditRecordReader, ReadsEverySpelling) {
  expect_the_record(kLine);
  expect_the_record(kLine + "\r");
  expect_the_record(" " + kLine + " ");
  expect_the_record(changed("\"rows\":3", "\"rows\" : 3 , \"more\":[1,{\"rows\":9}]"));
  expect_the_record(changed("\"tool\"", "\"\\u0074ool\""));
  expect_the_record(changed("desk", "\\u0064esk"));
  expect_the_record(changed("{\"timestamp\"", "{\"a\":null,\"timestamp\""));
  expect_the_record(changed("\"rows\":3", "\"rows\":8,\"rows\":3"));
}

TEST(AuditRecordReader, ReadsWhatTheServerWrites) {
  AuditContext context{};
  char record_text[kAuditRecordCapacity];
  TextOut(context.tool).copy_cut("kova_query");
  TextOut(context.correlation_id).copy_cut(R"(a"b\c)");
  const AuditIdentity identity{.client = "\"\\", .database = "D", .policy = "p"};
  const UtcTime now{.year = 2026,
                    .month = 2,
                    .day = 28,
                    .hour = 23,
                    .minute = 59,
                    .second = 59,
                    .millisecond = 999};
  ASSERT_TRUE(format_audit_record(context, identity, {.success = true, .rows = 1, .bytes = 2}, now,
                                  7, record_text));
  std::string line = record_text;
  line.resize(line.size() - 1);
  AuditRecordReader reader;
  AuditRecord record;
  ASSERT_TRUE(reader.read(line, record));
  EXPECT_EQ(record.correlation_id, R"(a"b\c)");
  EXPECT_EQ(record.client, "\"\\");
  EXPECT_EQ(record.duration_ms, 7U);
  EXPECT_EQ(time_text(record.time), "2026-02-28T23:59:59.999Z");
}

TEST(AuditRecordReader, DecodesEveryEscape) {
  AuditRecordReader reader;
  AuditRecord record;
  const std::string escapes = changed("desk", R"(\"\\\n\u00e9)");
  ASSERT_TRUE(reader.read(escapes, record));
  EXPECT_EQ(record.client, "\"\\\n\xC3\xA9");
  EXPECT_EQ(record.tool, "kova_query");
  const std::string plain = changed("desk", "\xC3\xA9");
  ASSERT_TRUE(reader.read(plain, record));
  EXPECT_EQ(record.client, "\xC3\xA9");
}

TEST(AuditRecordReader, KeepsANulAndPairsOfSurrogates) {
  AuditRecordReader reader;
  AuditRecord record;
  const std::string line = changed("desk", R"(a\u0000b\ud83d\ude00\b\f\r\t\/)");
  ASSERT_TRUE(reader.read(line, record));
  EXPECT_EQ(record.client, std::string("a\0b", 3) + "\xF0\x9F\x98\x80\b\f\r\t/");
  for (const char* half : {"\\ud83d", "\\ude00", "\\ud83dx", "\\ud83d\\u0041", "\\ud83d\\ud83d"}) {
    EXPECT_FALSE(readable(changed("desk", half))) << half;
  }
}

TEST(AuditRecordReader, ReadsTheLargestNumbers) {
  AuditRecordReader reader;
  AuditRecord record;
  ASSERT_TRUE(reader.read(changed(":13", ":18446744073709551615"), record));
  EXPECT_EQ(record.duration_ms, UINT64_MAX);
  ASSERT_TRUE(reader.read(changed(":13", ":9999999999999999999"), record));
  EXPECT_EQ(record.duration_ms, 9999999999999999999U);
  EXPECT_FALSE(readable(changed(":13", ":18446744073709551616")));
}

TEST(AuditRecordReader, RefusesWhatIsNoRecord) {
  for (const char* text : {"", "{}", "[]", "null", "\"\"", "{", "x"}) {
    EXPECT_FALSE(readable(text)) << text;
  }
  EXPECT_FALSE(readable(kLine + kLine));
  EXPECT_FALSE(readable(kLine + "x"));
  EXPECT_FALSE(readable(kLine.substr(0, kLine.size() - 1)));
  for (const char* name :
       {"timestamp", "correlation_id", "client_identity", "database_identity", "tool", "policy",
        "policy_decision", "objects", "duration_ms", "rows", "bytes", "status", "error_class"}) {
    EXPECT_FALSE(readable(changed(std::string("\"") + name + "\"", "\"other\""))) << name;
  }
}

TEST(AuditRecordReader, RefusesMembersOfAnotherType) {
  const char* const cases[][2] = {
      {"\"3\"", "3"},         {"\"desk\"", "null"}, {"\"ok\"", "true"},  {":13", ":\"13\""},
      {":13", ":-1"},         {":13", ":1.5"},      {":13", ":1e3"},     {":13", ":null"},
      {":13", ":01"},         {":119", ":[119]"},   {"\"none\"", "{}"},  {"T11", "t11"},
      {"2026-11", "2026-13"}, {"11-21", "11-31"},   {"11:45", "24:45"},  {":45:", ":60:"},
      {":51.", ":60."},       {".158Z", ".15Z"},    {".158Z", ".158z"},  {".158Z", ".1x8Z"},
      {"desk", "a\x01z"},     {"desk", "\xFF"},     {"desk", "\\ud800"}, {"desk", "\\x"},
  };
  for (const auto& [from, to] : cases) {
    const std::string line = changed(from, to);
    EXPECT_FALSE(readable(line)) << to;
    // Blanks lead to the other walk, a further member to the document.
    EXPECT_FALSE(readable("{ " + line.substr(1))) << to;
    EXPECT_FALSE(readable("{\"a\":1," + line.substr(1))) << to;
  }
}

std::vector<std::string> members_of(const std::string& line) {
  std::vector<std::string> members;
  std::size_t begin = 1;
  for (std::size_t end = 0; (end = line.find(",\"", begin)) != line.npos; begin = end + 1) {
    members.push_back(line.substr(begin, end - begin));
  }
  members.push_back(line.substr(begin, line.size() - begin - 1));
  return members;
}

TEST(AuditRecordReader, ReadsTheMembersInEveryOrder) {
  std::vector<std::string> members = members_of(kLine);
  ASSERT_EQ(members.size(), 13U);
  for (std::size_t turn = 0; turn < 2 * members.size(); ++turn) {
    std::rotate(members.begin(), members.begin() + 1, members.end());
    if (turn == members.size()) std::reverse(members.begin(), members.end());
    std::string line = "{";
    for (const std::string& member : members) line += (line.size() > 1 ? ", " : " ") + member;
    expect_the_record(line + "}");
    expect_the_record(line + "\t} ");
    EXPECT_FALSE(readable(line + ",}"));
    EXPECT_FALSE(readable(line));
    EXPECT_FALSE(readable(line + "}}"));
    // Without the first member, and with the first one twice.
    const std::string without = "{" + line.substr(line.find(',') + 1) + "}";
    EXPECT_FALSE(readable(without)) << without;
    expect_the_record(line + "," + members.front() + "}");
  }
}

TEST(AuditRecordReader, LimitsTheLine) {
  const std::size_t rest = kAuditLineLimit - kLine.size();
  const std::string longest = changed("desk", "desk" + std::string(rest, 'x'));
  ASSERT_EQ(longest.size(), kAuditLineLimit);
  EXPECT_TRUE(readable(longest));
  EXPECT_TRUE(readable(longest + "\r"));
  EXPECT_FALSE(readable(changed("desk", "desk" + std::string(rest + 1, 'x'))));
  EXPECT_TRUE(readable(kLine + std::string(rest, ' ')));
  EXPECT_FALSE(readable(kLine + std::string(rest + 1, ' ')));
}

TEST(AuditRecordReader, ReadsNothingBeyondTheLine) {
  AuditRecordReader reader;
  AuditRecord record;
  for (std::size_t size = 0; size <= kLine.size(); ++size) {
    const testing::GuardedText text(std::string_view(kLine).substr(0, size));
    EXPECT_EQ(reader.read(text.view(), record), size == kLine.size()) << size;
  }
  const std::string blanks = "{ " + kLine.substr(1);
  for (std::size_t size = 0; size <= blanks.size(); ++size) {
    const testing::GuardedText text(std::string_view(blanks).substr(0, size));
    EXPECT_EQ(reader.read(text.view(), record), size == blanks.size()) << size;
  }
}

}  // namespace
}  // namespace kova::admin

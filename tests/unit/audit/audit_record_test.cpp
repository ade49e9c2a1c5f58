// The audit record byte for byte, with the clocks given.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "audit/audit.h"

namespace kova::testing {
namespace {

constexpr UtcTime kNow = {2026, 3, 7, 4, 5, 6, 7};

AuditContext context_of(std::string_view tool, std::string_view id, std::string_view objects,
                        std::string_view decision, std::uint64_t started_ms) {
  AuditContext context{};
  TextOut(context.tool).copy_cut(tool);
  TextOut(context.correlation_id).copy_cut(id);
  TextOut(context.objects).copy_cut(objects);
  TextOut(context.policy_decision).copy_cut(decision);
  context.started_ms = started_ms;
  return context;
}

std::string record_of(const AuditContext& context, const AuditIdentity& identity,
                      AuditOutcome outcome, const UtcTime& now = kNow,
                      std::uint64_t now_ms = 1500) {
  char record[kAuditRecordCapacity];
  TextOut out(record);
  EXPECT_TRUE(format_audit_record(context, identity, outcome, now, now_ms, out));
  return record;
}

constexpr AuditIdentity kIdentity = {"desk-7", "SHOP", "Demo_1"};

TEST(AuditRecord, OfASuccess) {
  const auto context = context_of("kova_query", "7", "policy-select", "allow", 1455);
  EXPECT_EQ(record_of(context, kIdentity, {true, 12, 3456}),
            "{\"timestamp\":\"2026-03-07T04:05:06.007Z\",\"correlation_id\":\"7\","
            "\"client_identity\":\"desk-7\",\"database_identity\":\"SHOP\","
            "\"tool\":\"kova_query\",\"policy\":\"Demo_1\",\"policy_decision\":\"allow\","
            "\"objects\":\"policy-select\",\"duration_ms\":45,\"rows\":12,\"bytes\":3456,"
            "\"status\":\"ok\",\"error_class\":\"none\"}\r\n");
}

TEST(AuditRecord, OfAToolError) {
  const auto context = context_of("kova_text_search", "abc", "", "kill_switch", 1500);
  EXPECT_EQ(record_of(context, kIdentity, {false, 0, 0}),
            "{\"timestamp\":\"2026-03-07T04:05:06.007Z\",\"correlation_id\":\"abc\","
            "\"client_identity\":\"desk-7\",\"database_identity\":\"SHOP\","
            "\"tool\":\"kova_text_search\",\"policy\":\"Demo_1\","
            "\"policy_decision\":\"kill_switch\",\"objects\":\"\",\"duration_ms\":0,\"rows\":0,"
            "\"bytes\":0,\"status\":\"error\",\"error_class\":\"tool_error\"}\r\n");
}

TEST(AuditRecord, FillsAnEmptyDecisionFromTheOutcome) {
  const auto context = context_of("t", "1", "", "", 0);
  EXPECT_NE(record_of(context, kIdentity, {true, 0, 0}).find("\"policy_decision\":\"allow\""),
            std::string::npos);
  EXPECT_NE(record_of(context, kIdentity, {false, 0, 0}).find("\"policy_decision\":\"deny\""),
            std::string::npos);
}

TEST(AuditRecord, PadsTheTimestamp) {
  struct Row {
    UtcTime now;
    const char* text;
  };
  constexpr Row kRows[] = {
      {{1, 1, 1, 0, 0, 0, 0}, "{\"timestamp\":\"0001-01-01T00:00:00.000Z\","},
      {{2026, 12, 31, 23, 59, 59, 999}, "{\"timestamp\":\"2026-12-31T23:59:59.999Z\","},
      {{2026, 11, 21, 9, 8, 7, 60}, "{\"timestamp\":\"2026-11-21T09:08:07.060Z\","},
  };
  for (const Row& row : kRows) {
    const std::string record =
        record_of(context_of("t", "1", "", "allow", 0), kIdentity, {true, 0, 0}, row.now);
    EXPECT_EQ(record.substr(0, std::string(row.text).size()), row.text);
  }
}

TEST(AuditRecord, CountsWithAllTheirBits) {
  const auto all_bits = [](std::uint64_t started_ms, std::uint64_t now_ms) {
    return record_of(context_of("t", "1", "", "allow", started_ms), kIdentity,
                     {true, 4294967295U, 4294967295U}, kNow, now_ms);
  };
  EXPECT_NE(all_bits(0, UINT64_MAX)
                .find("\"duration_ms\":18446744073709551615,\"rows\":4294967295,"
                      "\"bytes\":4294967295,"),
            std::string::npos);
  // The difference is unsigned.
  EXPECT_NE(all_bits(1, 0).find("\"duration_ms\":18446744073709551615,"), std::string::npos);
  EXPECT_NE(all_bits(4294967296, 8589934593).find("\"duration_ms\":4294967297,"),
            std::string::npos);
}

TEST(AuditRecord, CleansEveryText) {
  const auto context = context_of("to\"ol", "i\\d", "ob\nj", "de\"c", 0);
  const std::string record = record_of(context, {"cli\xC3\xA9nt", "da\"ta", "po\\l"}, {true, 0, 0});
  for (const char* part :
       {"\"correlation_id\":\"i\\\\d\"", "\"client_identity\":\"cli__nt\"",
        "\"database_identity\":\"da\\\"ta\"", "\"tool\":\"to\\\"ol\"", "\"policy\":\"po\\\\l\"",
        "\"policy_decision\":\"de\\\"c\"", "\"objects\":\"ob_j\""})
    EXPECT_NE(record.find(part), std::string::npos) << part;
}

// Rooms of 128, 128, 96, 160, 96, 48 and 160 bytes; the context's own fields are shorter.
TEST(AuditRecord, CutsEachTextAtItsOwnRoom) {
  const std::string plain(500, 'p');
  const auto context = context_of(plain, plain, plain, plain, 0);
  const std::string record = record_of(context, {plain, plain, plain}, {true, 0, 0});
  const auto field = [](const char* name, std::size_t count) {
    return "\"" + std::string(name) + "\":\"" + std::string(count, 'p') + "\"";
  };
  for (const std::string& part :
       {field("correlation_id", 95), field("client_identity", 126), field("database_identity", 94),
        field("tool", 128), field("policy", 94), field("policy_decision", 31),
        field("objects", 128)})
    EXPECT_NE(record.find(part), std::string::npos) << part;
}

TEST(AuditRecord, EscapesGrowATextUpToItsRoom) {
  const std::string quotes(500, '"');
  const auto context = context_of(quotes, quotes, quotes, quotes, 0);
  const std::string record = record_of(context, {quotes, quotes, quotes}, {true, 0, 0});
  const auto field = [](const char* name, int count) {
    std::string text = "\"" + std::string(name) + "\":\"";
    for (int i = 0; i < count; ++i) text += "\\\"";
    return text + "\",";
  };
  for (const std::string& part :
       {field("correlation_id", 63), field("client_identity", 63), field("database_identity", 47),
        field("tool", 79), field("policy", 47), field("policy_decision", 23), field("objects", 79)})
    EXPECT_NE(record.find(part), std::string::npos) << part;
}

TEST(AuditRecord, OneMoreByteWhenAnEscapeEndsTheText) {
  const std::string client = std::string(125, 'p') + "\"p";
  const auto context = context_of("t", "1", "", "allow", 0);
  const std::string record = record_of(context, {client, "d", "p"}, {true, 0, 0});
  EXPECT_NE(record.find("\"client_identity\":\"" + std::string(125, 'p') + "\\\"\","),
            std::string::npos);
}

TEST(AuditRecord, MustFitItsRoomWithATerminator) {
  const auto context = context_of("kova_query", "7", "policy-select", "allow", 0);
  const std::string record = record_of(context, kIdentity, {true, 1, 2});
  std::string room(record.size() + 1, 'x');
  const auto fits = [&](std::size_t capacity) {
    TextOut out(room.data(), capacity);
    return format_audit_record(context, kIdentity, {true, 1, 2}, kNow, 1500, out);
  };
  EXPECT_TRUE(fits(record.size() + 1));
  EXPECT_STREQ(room.c_str(), record.c_str());
  EXPECT_FALSE(fits(record.size()));
  EXPECT_FALSE(fits(1));
}

// Every text at its longest: the room of 1,200 bytes is enough for any call.
TEST(AuditRecord, TheLongestRecordFits) {
  const auto longest = [](std::size_t capacity) { return std::string(capacity - 3, 'p') + "\""; };
  const std::string quotes(500, '"');
  const auto context = context_of(quotes, quotes, quotes, quotes, 0);
  const std::string client = longest(128);
  const std::string database = longest(96);
  const std::string record =
      record_of(context, {client, database, database}, {false, 4294967295U, 4294967295U},
                {9999, 12, 31, 23, 59, 59, 999}, UINT64_MAX);
  EXPECT_LT(record.size(), 1200U);
  EXPECT_EQ(kAuditRecordCapacity, 1200U);
  EXPECT_EQ(record.substr(record.size() - 3), "}\r\n");
}

}  // namespace
}  // namespace kova::testing

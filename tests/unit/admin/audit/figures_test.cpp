// What a report counts: tables, combinations, percentiles, times.
#include "admin/audit/figures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "admin/audit/charts.h"
#include "admin/audit/html.h"
#include "admin/audit/lines.h"
#include "admin/audit/progress.h"
#include "admin/audit/report_formats.h"
#include "admin/common/json_output.h"

namespace kova::admin {
namespace {

AuditRecord record_of(std::string_view client) {
  return {.time = 0,
          .timestamp = "1970-01-01T00:00:00.000Z",
          .correlation_id = "1",
          .client = client,
          .database = "D",
          .tool = "kova_query",
          .policy = "p",
          .decision = "allow",
          .objects = "policy-select",
          .duration_ms = 1,
          .rows = 2,
          .bytes = 3,
          .status = "ok",
          .error_class = "none"};
}

TEST(TextTable, KeepsTheFirstValues) {
  TextTable table;
  for (std::size_t i = 0; i < TextTable::kValueLimit; ++i) {
    EXPECT_EQ(table.id_of(std::to_string(i)), i);
  }
  EXPECT_EQ(table.id_of("new"), TextTable::kOtherId);
  EXPECT_EQ(table.id_of("4095"), 4095U);
  EXPECT_EQ(table.id_of("0"), 0U);
  EXPECT_EQ(table.text(TextTable::kOtherId), kOther);
  EXPECT_EQ(table.size(), TextTable::kValueLimit);
}

TEST(TextTable, OtherAndLongValuesHaveNoRowOfTheirOwn) {
  TextTable table;
  EXPECT_EQ(table.id_of(kOther), TextTable::kOtherId);
  EXPECT_EQ(table.id_of(std::string(TextTable::kTextLimit, 'x')), 0U);
  EXPECT_EQ(table.id_of(std::string(TextTable::kTextLimit + 1, 'x')), TextTable::kOtherId);
  EXPECT_EQ(table.id_of(""), 1U);
}

TEST(Combinations, KeepsTheFirstOnes) {
  Combinations combinations;
  for (std::uint64_t key = 0; key < Combinations::kLimit + 10; ++key) combinations.add(key, 5);
  combinations.add(7, 3);
  EXPECT_EQ(combinations.entries().size(), Combinations::kLimit);
  EXPECT_EQ(combinations.others().count, 10U);
  const Span& span = combinations.entries()[7].span;
  EXPECT_EQ(span.count, 2U);
  EXPECT_EQ(span.first, 3);
  EXPECT_EQ(span.last, 5);
}

TEST(CountedTable, SortsByCallsThenText) {
  CountedTable table;
  for (const char* client : {"b", "a", "c", "c"}) table.add(record_of(client), client);
  table.add(record_of(kOther), kOther);
  std::string order;
  for (const CountedTable::Row& row : table.rows()) order += row.text;
  EXPECT_EQ(order, "cab(other)");
}

TEST(Counts, StayAtTheLargestNumber) {
  Counts counts;
  AuditRecord record = record_of("a");
  record.bytes = UINT64_MAX - 1;
  counts.add(record);
  counts.add(record);
  EXPECT_EQ(counts.bytes, UINT64_MAX);
  EXPECT_EQ(counts.rows, 4U);
}

std::uint64_t nearest_rank(std::vector<std::uint64_t> values, unsigned per_mille) {
  std::sort(values.begin(), values.end());
  const std::size_t rank = (values.size() * per_mille + 999) / 1000;
  return values[std::max<std::size_t>(rank, 1) - 1];
}

TEST(Durations, AreNearestRank) {
  std::vector<std::uint64_t> values;
  Durations durations;
  EXPECT_EQ(durations.percentile(500), std::nullopt);
  EXPECT_EQ(durations.max(), std::nullopt);
  std::uint64_t value = 1;
  for (int i = 0; i < 2500; ++i) {
    value = value * 6364136223846793005U + 1442695040888963407U;
    // On both sides of the dense counters.
    values.push_back(value >> (i % 3 == 0 ? 38U : 55U));
    durations.add(values.back());
    if (i % 100 > 3) continue;
    for (const unsigned per_mille : {1U, 500U, 900U, 990U, 999U, 1000U}) {
      ASSERT_EQ(durations.percentile(per_mille), nearest_rank(values, per_mille)) << i;
    }
  }
  EXPECT_EQ(durations.max(), *std::max_element(values.begin(), values.end()));
}

TEST(Durations, AreRoundedUpOnlyWhenTheyAreManyAndLong) {
  Durations durations;
  const std::uint64_t start = Durations::kDenseLimit + 1;
  for (std::uint64_t i = 0; i <= Durations::kSparseLimit; ++i) durations.add(start + 1000 * i);
  const std::uint64_t exact = start + 1000 * (Durations::kSparseLimit / 2);
  const std::uint64_t median = durations.percentile(500).value_or(0);
  EXPECT_GE(median, exact);
  EXPECT_LE(median, exact + exact / 500);
  EXPECT_EQ(durations.percentile(1000), start + 1000 * Durations::kSparseLimit);
}

TEST(TimeBins, GrowWithTheTimeThatTheySpan) {
  TimeBins bins;
  const UnixMs minute = 60000;
  for (std::size_t i = 0; i < TimeBins::kBinLimit; ++i) {
    bins.add(minute * static_cast<UnixMs>(i), Ending::kOk);
  }
  EXPECT_EQ(bins.width(), minute);
  bins.add(minute * static_cast<UnixMs>(TimeBins::kBinLimit), Ending::kRefused);
  EXPECT_EQ(bins.width(), 5 * minute);
  EXPECT_EQ(bins.bins().at(0).calls[0], 5U);
  bins.coarsen(90);
  EXPECT_EQ(bins.width(), 6 * 60 * minute);
  std::uint64_t total = 0;
  for (const auto& [number, bin] : bins.bins()) total += bin.total();
  EXPECT_EQ(total, TimeBins::kBinLimit + 1);
}

TEST(TimeBins, KnowAllTimes) {
  TimeBins bins;
  bins.add(-62167219200000, Ending::kOk);
  bins.add(253402300799999, Ending::kFailed);
  bins.add(-1, Ending::kOk);
  bins.coarsen(120);
  EXPECT_LE(bins.bins().rbegin()->first - bins.bins().begin()->first, 120);
  EXPECT_EQ(bins.bins().size(), 3U);
}

TEST(TopCalls, KeepsTheLargestAndTheEarlierOfEqualOnes) {
  TopCalls top;
  std::vector<std::string> ids;
  for (int i = 0; i < 60; ++i) ids.push_back(std::to_string(i));
  for (std::size_t i = 0; i < ids.size(); ++i) {
    AuditRecord record = record_of("a");
    record.correlation_id = ids[i];
    top.add(i % 10, record);
  }
  ASSERT_EQ(top.calls().size(), TopCalls::kLimit);
  EXPECT_EQ(top.calls()[0].correlation_id, "9");
  EXPECT_EQ(top.calls()[1].correlation_id, "19");
  EXPECT_EQ(top.calls()[6].correlation_id, "8");
  EXPECT_EQ(top.calls().back().value, 6U);
  TopCalls none;
  none.add(0, record_of("a"));
  EXPECT_TRUE(none.calls().empty());
}

TEST(Figures, TellRefusalsFromFailures) {
  Figures figures(nullptr);
  const char* const cases[][4] = {{"kova_query", "allow", "policy-select", "ok"},
                                  {"kova_query", "allow", "", "error"},
                                  {"kova_query", "allow", "policy-select", "error"},
                                  {"kova_query", "deny", "", "error"},
                                  {"kova_ai_status", "kill_switch", "C,P", "error"},
                                  {"kova_execute", "approval_required", "T", "error"},
                                  {"kova_execute", "approval_accepted", "T", "error"},
                                  {"kova_execute", "deny", "T", "error"},
                                  {"kova_execute", "deny", "", "error"},
                                  {"kova_list_tables", "allow", "", "error"}};
  for (const auto& [tool, decision, objects, status] : cases) {
    AuditRecord record = record_of("a");
    record.tool = tool;
    record.decision = decision;
    record.objects = objects;
    record.status = status;
    figures.add(record);
  }
  std::string text;
  for (const RefusalRow& row : figures.refusals()) {
    text += std::string(reason_text(row.reason)) + " " + std::string(row.tool) + "\n";
  }
  EXPECT_EQ(text,
            "deny kova_execute\ndeny kova_query\nkill_switch kova_ai_status\n"
            "approval_required kova_execute\nquery checks kova_query\nfailed kova_execute\n"
            "failed kova_list_tables\nfailed kova_query\n");
  EXPECT_EQ(figures.hours[0].calls[0], 1U);
  EXPECT_EQ(figures.hours[0].calls[1], 6U);
  EXPECT_EQ(figures.hours[0].calls[2], 3U);
  EXPECT_EQ(figures.approvals.required, 1U);
  EXPECT_EQ(figures.approvals.accepted, 1U);
  EXPECT_EQ(figures.approvals.refused, 1U);
  EXPECT_EQ(figures.writes.size(), 4U);
  EXPECT_EQ(figures.kill_switch_uses().size(), 1U);
}

TEST(JsonText, IsThatOfTheLibrary) {
  for (int byte = 0; byte < 256; ++byte) {
    for (const std::string& text :
         {std::string(1, static_cast<char>(byte)),
          "twenty plain bytes, " + std::string(1, static_cast<char>(byte)) + "z"}) {
      std::string line = "{";
      append_json_text(line, text);
      EXPECT_EQ(line, "{" + json_line(Json(text))) << byte;
    }
  }
}

TEST(Spool, GivesEverythingInOrderFromMemoryAndFromTheFile) {
  Spool spool;
  const std::string filler(100000, 'x');
  for (int i = 0; i < 250; ++i) spool.add(std::to_string(i) + filler);
  EXPECT_EQ(spool.size(), 250U);
  int expected = 0;
  spool.for_each([&](const std::string& line) {
    ASSERT_EQ(line, std::to_string(expected) + filler);
    ++expected;
  });
  EXPECT_EQ(expected, 250);
}

std::vector<std::string> lines_of(const std::vector<std::string>& pieces) {
  LineSplitter splitter;
  std::vector<std::string> lines;
  const auto take = [&](std::string_view line) { lines.emplace_back(line); };
  for (const std::string& piece : pieces) splitter.add(piece, take);
  splitter.finish(take);
  return lines;
}

TEST(LineSplitter, JoinsPieces) {
  using Lines = std::vector<std::string>;
  EXPECT_EQ(lines_of({}), Lines());
  EXPECT_EQ(lines_of({""}), Lines());
  EXPECT_EQ(lines_of({"a"}), Lines({"a"}));
  EXPECT_EQ(lines_of({"a\n"}), Lines({"a"}));
  EXPECT_EQ(lines_of({"\n\n"}), Lines({"", ""}));
  EXPECT_EQ(lines_of({"a", "b", "\nc\nd", "\n"}), Lines({"ab", "c", "d"}));
  EXPECT_EQ(lines_of({"a\r", "\nb"}), Lines({"a\r", "b"}));
}

TEST(LineSplitter, KeepsNoMoreOfALongLineThanTellsThatItIsLong) {
  const std::string piece(40000, 'x');
  const auto lines = lines_of({piece, piece, piece, piece + "\nend\n"});
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_GT(lines[0].size(), kAuditLineLimit);
  EXPECT_LT(lines[0].size(), kAuditLineLimit + 10);
  EXPECT_EQ(lines[1], "end");
}

TEST(Html, KeepsTextText) {
  EXPECT_EQ(html_text("<b a=\"1\">&'"), "&lt;b a=&quot;1&quot;&gt;&amp;&#39;");
  EXPECT_EQ(html_text("\x1b[2J\xE2\x80\xAE"), "\\x1B[2J\\u{202E}");
  EXPECT_EQ(html_text(std::string(201, 'x')), std::string(200, 'x') + "... (201 bytes)");
}

TEST(Html, HashesContent) {
  // The example of Content Security Policy Level 3, 6.7.3.3.
  EXPECT_EQ(content_hash("alert('Hello, world.');"),
            "'sha256-qznLcsROx4GACP2dm0UCKCzCG+HiZ1guq6ZZDob/Tng='");
}

TEST(Charts, HoldNoMarkupOfTheirData) {
  const std::string chart =
      bar_chart({.id = "i", .title = "t", .description = "<d>"},
                {{.label = "<l>", .parts = {1, 2, 3}, .value = "<v>"}}, Scale::kLinear);
  EXPECT_EQ(chart.find("<l>"), std::string::npos);
  EXPECT_EQ(chart.find("<d>"), std::string::npos);
  EXPECT_EQ(chart.find("<v>"), std::string::npos);
  EXPECT_NE(chart.find("&lt;l&gt;"), std::string::npos);
}

TEST(ReportWords, GroupsDigits) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(12345678), "12,345,678");
}

TEST(Progress, SaysHowFarAndHowFast) {
  EXPECT_EQ(progress_line(500000000, 1000000000, 2), " 50 %, 500 MB, 250 MB/s");
  EXPECT_EQ(progress_line(3000000, 0, 1), "3 MB, 3 MB/s");
  EXPECT_EQ(progress_line(30000000, 10000000, 1), "100 %, 30 MB, 30 MB/s");
}

}  // namespace
}  // namespace kova::admin

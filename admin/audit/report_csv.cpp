#include <fmt/format.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/report_formats.h"
#include "admin/common/json_output.h"
#include "admin/common/printable.h"

namespace kova::admin {

namespace {

constexpr const char* kHeader =
    "table,name,client,tool,objects,timestamp,decision,status,calls,ok,errors,rows,bytes,"
    "duration_ms,first,last,lines,unreadable,sha256,reason\r\n";

/// The columns after `table`; those that do not apply stay empty.
struct CsvRow {
  std::string_view table;
  std::string_view name = {};
  std::string_view client = {};
  std::string_view tool = {};
  std::string_view objects = {};
  std::string_view timestamp = {};
  std::string_view decision = {};
  std::string_view status = {};
  std::string calls = {};
  std::string ok = {};
  std::string errors = {};
  std::string rows = {};
  std::string bytes = {};
  std::string duration = {};
  std::string first = {};
  std::string last = {};
  std::string lines = {};
  std::string unreadable = {};
  std::string_view sha256 = {};
  std::string_view reason = {};
};

/// Quoted where RFC 4180 wants it, unusual characters escaped. A text that a spreadsheet would take
/// for a formula gets an apostrophe in front.
std::string field(std::string_view text) {
  std::string value = printable(text);
  if (!value.empty() && std::string_view("=+-@").find(value[0]) != std::string_view::npos) {
    value.insert(0, 1, '\'');
  }
  if (value.find_first_of(",\"") == value.npos) return value;
  std::string quoted = "\"";
  for (const char c : value) {
    if (c == '"') quoted += c;
    quoted += c;
  }
  return quoted + '"';
}

void write_row(const CsvRow& row, OutputTarget& out) {
  std::string line;
  const char* separator = "";
  for (const std::string_view value : std::initializer_list<std::string_view>{
           row.table,     row.name,     row.client,     row.tool,     row.objects,
           row.timestamp, row.decision, row.status,     row.calls,    row.ok,
           row.errors,    row.rows,     row.bytes,      row.duration, row.first,
           row.last,      row.lines,    row.unreadable, row.sha256,   row.reason}) {
    line += separator + field(value);
    separator = ",";
  }
  out.write(line + "\r\n");
}

CsvRow counts_row(std::string_view table, std::string_view name, const Counts& counts) {
  return {.table = table,
          .name = name,
          .calls = std::to_string(counts.calls),
          .ok = std::to_string(counts.ok),
          .errors = std::to_string(counts.errors),
          .rows = std::to_string(counts.rows),
          .bytes = std::to_string(counts.bytes)};
}

std::string text_of_time(const std::optional<UnixMs>& time) {
  return time ? time_text(*time) : std::string();
}

void write_file_rows(const AuditLog& log, OutputTarget& out) {
  for (const FileFacts& file : log.files) {
    write_row({.table = "file",
               .name = file.name,
               .first = text_of_time(file.first),
               .last = text_of_time(file.last),
               .lines = std::to_string(file.lines),
               .unreadable = std::to_string(file.unreadable),
               .sha256 = file.sha256},
              out);
  }
}

void write_table(std::string_view name, const CountedTable& table, OutputTarget& out) {
  for (const CountedTable::Row& row : table.rows()) {
    write_row(counts_row(name, row.text, row.counts), out);
  }
}

void write_bin(std::string_view table, const std::string& name, const Bin& bin, OutputTarget& out) {
  write_row({.table = table,
             .name = name,
             .calls = std::to_string(bin.total()),
             .ok = std::to_string(bin.calls[0]),
             .errors = std::to_string(bin.calls[1] + bin.calls[2])},
            out);
}

void write_times(Figures& figures, OutputTarget& out) {
  for (const auto& [number, bin] : figures.over_time.bins()) {
    write_bin("over_time", time_text(number * figures.over_time.width()), bin, out);
  }
  for (std::size_t hour = 0; hour < figures.hours.size(); ++hour) {
    write_bin("hour", fmt::format("{:02}", hour), figures.hours[hour], out);
  }
  for (const unsigned per_mille : {500U, 750U, 900U, 950U, 990U, 999U, 1000U}) {
    const auto value = figures.durations.percentile(per_mille);
    write_row({.table = "duration",
               .name = fmt::format("p{}", per_mille / 10.0),
               .duration = value ? std::to_string(*value) : std::string()},
              out);
  }
}

void write_number(std::string_view table, std::string_view name, std::uint64_t number,
                  OutputTarget& out) {
  write_row({.table = table, .name = name, .calls = std::to_string(number)}, out);
}

void write_approvals(const ApprovalCounts& approvals, const ReportFrame& frame, OutputTarget& out) {
  write_number("approval", "required", approvals.required, out);
  write_number("approval", "accepted", approvals.accepted, out);
  write_number("approval", "refused", approvals.refused, out);
  if (!frame.has_journal) return;
  write_number("journal", "approved", frame.journal_approved, out);
  write_number("journal", "declined", frame.journal_declined, out);
}

void write_combinations(std::string_view table, const std::vector<CombinationRow>& rows,
                        OutputTarget& out) {
  for (const CombinationRow& row : rows) {
    write_row({.table = table,
               .client = row.client,
               .tool = row.tool,
               .objects = row.objects,
               .calls = std::to_string(row.span.count),
               .first = time_text(row.span.first),
               .last = time_text(row.span.last)},
              out);
  }
}

void write_top(std::string_view table, const TopCalls& top, OutputTarget& out) {
  for (const TopCall& call : top.calls()) {
    write_row({.table = table,
               .name = call.correlation_id,
               .client = call.client,
               .tool = call.tool,
               .objects = call.objects,
               .timestamp = call.timestamp,
               .rows = std::to_string(call.rows),
               .bytes = std::to_string(call.bytes),
               .duration = std::to_string(call.duration_ms)},
              out);
  }
}

void write_spools(AuditLog& log, OutputTarget& out) {
  log.figures.writes.for_each([&](const std::string& line) {
    const Json write = Json::parse(line);
    const auto text = [&](const char* name) { return write.value(name, std::string()); };
    write_row({.table = "write",
               .name = text("operator"),
               .client = text("client"),
               .objects = text("table"),
               .timestamp = text("timestamp"),
               .decision = text("decision"),
               .status = text("status"),
               .reason = text("reason")},
              out);
  });
  log.gaps.for_each([&](const std::string& line) {
    const Json gap = Json::parse(line);
    const auto text = [&](const char* name) { return gap.value(name, std::string()); };
    write_row({.table = text("kind"),
               .name = text("file"),
               .first = text("from"),
               .last = text("to"),
               .lines = std::to_string(gap.value("line", std::uint64_t{0}))},
              out);
  });
}

}  // namespace

void write_csv_report(AuditLog& log, const ReportFrame& frame, OutputTarget& out) {
  Figures& figures = log.figures;
  out.write(kHeader);
  write_file_rows(log, out);
  write_row(counts_row("total", "", figures.totals), out);
  write_table("tool", figures.tools, out);
  write_table("client", figures.clients, out);
  write_table("decision", figures.decisions, out);
  write_times(figures, out);
  for (const RefusalRow& row : figures.refusals()) {
    write_row({.table = "refusal",
               .name = reason_text(row.reason),
               .tool = row.tool,
               .calls = std::to_string(row.span.count),
               .first = time_text(row.span.first),
               .last = time_text(row.span.last)},
              out);
  }
  write_approvals(figures.approvals, frame, out);
  write_combinations("kill_switch", figures.kill_switch_uses(), out);
  write_combinations("first_seen", figures.first_seen(), out);
  write_top("slowest", figures.slowest, out);
  write_top("largest", figures.largest, out);
  write_spools(log, out);
}

}  // namespace kova::admin

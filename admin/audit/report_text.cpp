#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/report_formats.h"
#include "admin/common/json_output.h"
#include "admin/common/output.h"

namespace kova::admin {

namespace {

/// A terminal's list is cut here; the other forms have the rest.
constexpr std::uint64_t kRowsShown = 50;

class TextReport {
 public:
  TextReport(AuditLog& log, const ReportFrame& frame, OutputTarget& out)
      : log_(log), figures_(log.figures), frame_(frame), out_(out) {}

  void write() {
    write_files();
    write_totals();
    write_table("tool", figures_.tools);
    write_table("client", figures_.clients);
    write_table("decision", figures_.decisions);
    write_durations();
    write_refusals();
    write_writes();
    write_combinations("kill switch used", figures_.kill_switch_uses());
    write_top("slowest calls", figures_.slowest);
    write_top("largest results", figures_.largest);
    write_combinations("first seen", figures_.first_seen());
    write_gaps();
    heading("what the audit cannot contain");
    for (const std::string_view sentence : what_is_missing()) line("  {}", sentence);
  }

 private:
  template <typename... Values>
  void line(fmt::format_string<Values...> form, Values&&... values) {
    out_.write(fmt::format(form, std::forward<Values>(values)...) + '\n');
  }

  void heading(std::string_view text) { line("\n{}", text); }

  static std::string text_of_time(const std::optional<UnixMs>& time) {
    return time ? time_text(*time) : std::string("-");
  }

  void write_files() {
    line("files");
    for (const FileFacts& file : log_.files) {
      line("  {}\n    sha256 {}\n    {} lines, {} not readable, {} to {}", shown(file.name),
           file.sha256, grouped(file.lines), grouped(file.unreadable), text_of_time(file.first),
           text_of_time(file.last));
    }
    for (const std::string& sentence : filter_sentences(frame_.filter)) line("  {}", sentence);
  }

  void write_totals() {
    const Counts& totals = figures_.totals;
    heading("calls");
    line("  {} calls, {} ok, {} errors, {} rows, {} bytes", grouped(totals.calls),
         grouped(totals.ok), grouped(totals.errors), grouped(totals.rows), grouped(totals.bytes));
  }

  void write_table(std::string_view name, const CountedTable& table) {
    heading(fmt::format("by {:<30}{:>12}{:>12}{:>12}", name, "calls", "ok", "errors"));
    std::uint64_t count = 0;
    const auto rows = table.rows();
    for (const CountedTable::Row& row : rows) {
      if (++count > kRowsShown) break;
      line("  {:<31}{:>12}{:>12}{:>12}", shown(row.text), grouped(row.counts.calls),
           grouped(row.counts.ok), grouped(row.counts.errors));
    }
    write_rest(rows.size());
  }

  void write_rest(std::uint64_t count) {
    if (count > kRowsShown) line("  and {} more", grouped(count - kRowsShown));
    if (count == 0) line("  none");
  }

  void write_durations() {
    heading("durations in ms, by percentile");
    std::string text;
    for (const unsigned per_mille : {500U, 900U, 990U, 1000U}) {
      const auto value = figures_.durations.percentile(per_mille);
      const std::string name = per_mille == 1000 ? "max" : fmt::format("p{}", per_mille / 10);
      text += fmt::format("  {} {}", name, value ? grouped(*value) : "-");
    }
    line("{}", text);
  }

  void write_refusals() {
    heading("refusals");
    const auto rows = figures_.refusals();
    for (const RefusalRow& row : rows) {
      line("  {:<18} {:<22}{:>10}  {} to {}", reason_text(row.reason), shown(row.tool),
           grouped(row.span.count), time_text(row.span.first), time_text(row.span.last));
    }
    if (rows.empty()) line("  none");
  }

  void write_writes() {
    const ApprovalCounts& approvals = figures_.approvals;
    heading("writes");
    line("  approvals: {} required, {} accepted, {} refused", grouped(approvals.required),
         grouped(approvals.accepted), grouped(approvals.refused));
    if (frame_.has_journal) {
      line("  journal: {} approved, {} declined", grouped(frame_.journal_approved),
           grouped(frame_.journal_declined));
    }
    std::uint64_t count = 0;
    figures_.writes.for_each([&](const std::string& text) {
      if (++count > kRowsShown) return;
      const Json write = Json::parse(text);
      const auto member = [&](const char* name) { return shown(write.value(name, std::string())); };
      std::string who;
      if (write.contains("operator")) {
        who = fmt::format("  by {}: {}", member("operator"), member("reason"));
      }
      line("  {}  {:<17} {:<5}  {}  {}{}", member("timestamp"), member("decision"),
           member("status"), member("table"), member("client"), who);
    });
    write_rest(count);
  }

  void write_combinations(std::string_view title, const std::vector<CombinationRow>& rows) {
    heading(title);
    std::uint64_t count = 0;
    for (const CombinationRow& row : rows) {
      if (++count > kRowsShown) break;
      line("  {}{:>10}  {}  {}  {}", time_text(row.span.first), grouped(row.span.count),
           shown(row.client), shown(row.tool), row.objects.empty() ? "-" : shown(row.objects));
    }
    write_rest(rows.size());
  }

  void write_top(std::string_view title, const TopCalls& top) {
    heading(title);
    for (const TopCall& call : top.calls()) {
      line("  {}{:>12} ms{:>15} bytes  {}  {}  id {}", shown(call.timestamp),
           grouped(call.duration_ms), grouped(call.bytes), shown(call.client), shown(call.tool),
           shown(call.correlation_id));
    }
    if (top.calls().empty()) line("  none");
  }

  void write_gaps() {
    heading("gaps of more than 24 hours, and clocks that went back");
    std::uint64_t count = 0;
    log_.gaps.for_each([&](const std::string& text) {
      if (++count > kRowsShown) return;
      const Json gap = Json::parse(text);
      line("  {:<5}  {} to {}  {}: line {}", gap.value("kind", std::string()),
           gap.value("from", std::string()), gap.value("to", std::string()),
           shown(gap.value("file", std::string())), gap.value("line", std::uint64_t{0}));
    });
    write_rest(count);
  }

  AuditLog& log_;
  Figures& figures_;
  const ReportFrame& frame_;
  OutputTarget& out_;
};

}  // namespace

void write_text_report(AuditLog& log, const ReportFrame& frame, OutputTarget& out) {
  TextReport(log, frame, out).write();
}

}  // namespace kova::admin

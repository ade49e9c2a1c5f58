#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "admin/audit/charts.h"
#include "admin/audit/html.h"
#include "admin/audit/report_formats.h"
#include "admin/audit/report_style.h"
#include "admin/common/json_output.h"
#include "admin/common/markup.h"

namespace kova::admin {

namespace {

constexpr std::size_t kColumnLimit = 90;
constexpr std::size_t kBarLimit = 12;
/// Rows of a table: a browser still shows them at once. The other forms have all.
constexpr std::uint64_t kRowLimit = 1000;
constexpr std::uint64_t kWriteLimit = 10000;

/// One cell: its class, and its content as HTML.
struct Cell {
  const char* name;
  std::string html;
};

Cell text_cell(std::string_view text) {
  return {.name = "", .html = html_text(text)};
}
Cell number_cell(std::uint64_t number) {
  return {.name = "number", .html = grouped(number)};
}
Cell time_cell(std::string_view time) {
  return {.name = "time", .html = html_text(time)};
}
Cell time_cell(UnixMs time) {
  return time_cell(time_text(time));
}

struct Heading {
  const char* text;
  bool is_number = false;
};

class HtmlReport {
 public:
  HtmlReport(AuditLog& log, const ReportFrame& frame, OutputTarget& out)
      : log_(log), figures_(log.figures), frame_(frame), out_(out) {}

  void write() {
    write_head();
    write_summary();
    write_charts();
    write_tables();
    write_refusals();
    write_writes();
    write_combinations("switch", "Kill switches", figures_.kill_switch_uses(),
                       "Calls that a kill switch or the policy's switch for providers refused.");
    write_top("slowest", "Slowest calls", figures_.slowest);
    write_top("largest", "Largest results", figures_.largest);
    write_combinations(
        "first-seen", "First seen", figures_.first_seen(),
        "Each client, tool and object that were seen together, by their first call.");
    write_missing();
    write_provenance();
    out_.write(
        "</main>\n<footer class=\"soft\"><p>Times are UTC, as in the audit file.</p>"
        "</footer>\n</body>\n</html>\n");
  }

 private:
  void write_head() {
    out_.write(
        "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src " +
        content_hash(kReportStyle) +
        "; base-uri 'none'; form-action 'none'\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta name=\"color-scheme\" content=\"light dark\">\n"
        "<meta name=\"referrer\" content=\"no-referrer\">\n"
        "<title>Audit report</title>\n<style>");
    out_.write(kReportStyle);
    out_.write("</style>\n</head>\n<body>\n<header><h1>Audit report</h1>\n<p>" + span_text() +
               "</p>\n");
    for (const std::string& sentence : filter_sentences(frame_.filter)) {
      out_.write("<p>" + escape_markup(sentence) + "</p>\n");
    }
    out_.write("</header>\n<nav aria-label=\"Sections\"><ul>");
    constexpr const char* kSections[][2] = {
        {"charts", "Charts"},           {"sums", "Sums"},
        {"refusals", "Refusals"},       {"writes", "Writes and approvals"},
        {"switch", "Kill switches"},    {"slowest", "Slowest"},
        {"largest", "Largest"},         {"first-seen", "First seen"},
        {"missing", "What is missing"}, {"provenance", "Provenance"}};
    for (const auto& [id, text] : kSections) {
      out_.write(fmt::format("<li><a href=\"#{}\">{}</a></li>", id, text));
    }
    out_.write("</ul></nav>\n<main>\n");
  }

  /// The first and the last record of all files.
  std::string span_text() const {
    std::optional<UnixMs> first;
    std::optional<UnixMs> last;
    for (const FileFacts& file : log_.files) {
      if (!file.first) continue;
      first = std::min(first.value_or(*file.first), *file.first);
      last = std::max(last.value_or(*file.last), *file.last);
    }
    if (!first) return "The files hold no record.";
    return fmt::format("Records from {} to {}.", time_text(*first), time_text(*last));
  }

  void write_summary() {
    const Counts& totals = figures_.totals;
    std::uint64_t unreadable = 0;
    for (const FileFacts& file : log_.files) unreadable += file.unreadable;
    out_.write("<ul class=\"sums\">");
    sum("calls", totals.calls);
    sum("ok", totals.ok);
    sum("errors", totals.errors);
    sum("writes and proposals", figures_.writes.size());
    sum("rows", totals.rows);
    sum("bytes", totals.bytes);
    sum("lines not readable", unreadable);
    out_.write("</ul>\n");
  }

  void sum(const char* name, std::uint64_t number) {
    out_.write(fmt::format("<li><b>{}</b> {}</li>", grouped(number), name));
  }

  void section(const char* id, const char* title) {
    out_.write(
        fmt::format("<section aria-labelledby=\"{}\"><h2 id=\"{}\">{}</h2>\n", id, id, title));
  }

  void end_section() { out_.write("</section>\n"); }

  // charts

  void write_charts() {
    section("charts", "Charts");
    figures_.over_time.coarsen(kColumnLimit);
    out_.write(chart_patterns());
    out_.write("<ul class=\"legend\">");
    for (const auto& [name, text] : {std::pair("ok", "plain: succeeded"),
                                     std::pair("refused", "striped: refused by policy or checks"),
                                     std::pair("failed", "dotted: failed otherwise")}) {
      out_.write(
          fmt::format("<li><svg viewBox=\"0 0 16 16\" aria-hidden=\"true\" "
                      "focusable=\"false\"><rect class=\"{}\" width=\"16\" height=\"16\"/>"
                      "</svg>{}</li>",
                      name, text));
    }
    out_.write("</ul>\n<div class=\"charts\">\n");
    figure("Calls and refusals over time", time_chart(), width_text());
    figure("Hours of the day (UTC)", hour_chart(), "All days together.");
    figure("Calls by tool", table_chart("chart-tools", "Calls by tool", figures_.tools),
           bars_text(figures_.tools));
    figure("Calls by client", table_chart("chart-clients", "Calls by client", figures_.clients),
           bars_text(figures_.clients));
    figure("Durations by percentile", duration_chart(),
           "Milliseconds from acceptance to record; the bars are logarithmic.");
    out_.write("</div>\n");
    end_section();
  }

  void figure(const char* title, const std::string& chart, const std::string& note) {
    out_.write(fmt::format("<figure><h3>{}</h3>\n{}<figcaption>{}</figcaption></figure>\n", title,
                           chart, escape_markup(note)));
  }

  static std::string tip(const std::string& when, const Bin& bin) {
    return fmt::format("{}: {} ok, {} refused, {} failed", when, grouped(bin.calls[0]),
                       grouped(bin.calls[1]), grouped(bin.calls[2]));
  }

  /// To the minute, without the letter between day and time.
  static std::string minute_text(UnixMs time) {
    constexpr std::size_t kLength = 16;
    constexpr std::size_t kLetter = 10;
    std::string text = time_text(time).substr(0, kLength);
    text[kLetter] = ' ';
    return text;
  }

  std::string width_text() const {
    constexpr UnixMs kMinute = 60000;
    const UnixMs minutes = figures_.over_time.width() / kMinute;
    if (minutes < 60) return fmt::format("One column for {} min.", minutes);
    if (minutes < 1440) return fmt::format("One column for {} h.", minutes / 60);
    return fmt::format("One column for {} d.", minutes / 1440);
  }

  std::string time_chart() const {
    const TimeBins& over_time = figures_.over_time;
    std::vector<Column> columns;
    const auto& bins = over_time.bins();
    if (!bins.empty()) {
      const std::int64_t first = bins.begin()->first;
      const std::int64_t last = bins.rbegin()->first;
      for (std::int64_t number = first; number <= last; ++number) {
        const auto found = bins.find(number);
        const std::string when = minute_text(number * over_time.width());
        const Bin bin = found != bins.end() ? found->second : Bin();
        const bool has_label = number == first || number == last;
        columns.push_back(
            {.tip = tip(when, bin), .label = has_label ? when : std::string(), .bin = bin});
      }
    }
    return column_chart({.id = "chart-time",
                         .title = "Calls and refusals over time",
                         .description = span_text() + " " + endings_text()},
                        columns);
  }

  std::string endings_text() const {
    Bin all;
    for (const Bin& hour : figures_.hours) {
      for (std::size_t i = 0; i < kEndings; ++i) all.calls[i] += hour.calls[i];
    }
    return tip("In all", all) + ".";
  }

  std::string hour_chart() const {
    std::vector<Column> columns;
    std::size_t busiest = 0;
    for (std::size_t hour = 0; hour < figures_.hours.size(); ++hour) {
      if (figures_.hours[hour].total() > figures_.hours[busiest].total()) busiest = hour;
      columns.push_back({.tip = tip(fmt::format("{:02}:00", hour), figures_.hours[hour]),
                         .label = hour % 6 == 0 ? fmt::format("{:02}", hour) : std::string(),
                         .bin = figures_.hours[hour]});
    }
    return column_chart(
        {.id = "chart-hours",
         .title = "Calls by hour of the day",
         .description = fmt::format("Most calls between {:02}:00 and {:02}:59.", busiest, busiest)},
        columns);
  }

  static std::string table_chart(const char* id, const char* title, const CountedTable& table) {
    std::vector<BarRow> bars;
    std::string description;
    for (const CountedTable::Row& row : table.rows()) {
      if (bars.size() == kBarLimit) break;
      bars.push_back({.label = std::string(row.text),
                      .parts = {row.counts.ok, 0, row.counts.errors},
                      .value = grouped(row.counts.calls)});
      if (bars.size() > 3) continue;
      description += fmt::format("{} {}: {}.", description.empty() ? "" : " ", shown(row.text),
                                 grouped(row.counts.calls));
    }
    return bar_chart({.id = id, .title = title, .description = description}, bars, Scale::kLinear);
  }

  static std::string bars_text(const CountedTable& table) {
    const std::size_t count = table.rows().size();
    std::string text = "Dotted: errors of every kind.";
    if (count > kBarLimit) text += fmt::format(" The first {} of {}.", kBarLimit, count);
    return text;
  }

  std::string duration_chart() const {
    std::vector<BarRow> bars;
    std::string description;
    for (const auto& [per_mille, name] :
         {std::pair(500U, "p50"), std::pair(750U, "p75"), std::pair(900U, "p90"),
          std::pair(950U, "p95"), std::pair(990U, "p99"), std::pair(999U, "p99.9"),
          std::pair(1000U, "max")}) {
      const auto value = figures_.durations.percentile(per_mille);
      if (!value) continue;
      bars.push_back({.label = name, .parts = {*value}, .value = grouped(*value) + " ms"});
      description += fmt::format("{} {} ms. ", name, grouped(*value));
    }
    return bar_chart(
        {.id = "chart-durations", .title = "Durations by percentile", .description = description},
        bars, Scale::kLogarithmic);
  }

  // tables

  /// A table in a box that scrolls where the page is too narrow.
  void open_table(const std::string& caption, std::initializer_list<Heading> headings) {
    out_.write(
        fmt::format("<div class=\"scroll\" role=\"region\" tabindex=\"0\" "
                    "aria-label=\"{}\"><table><caption>{}</caption><thead><tr>",
                    escape_markup(caption), escape_markup(caption)));
    for (const Heading& heading : headings) {
      out_.write(fmt::format("<th scope=\"col\"{}>{}</th>",
                             heading.is_number ? " class=\"number\"" : "", heading.text));
    }
    out_.write("</tr></thead><tbody>\n");
  }

  void row(std::initializer_list<Cell> cells) {
    std::string html = "<tr>";
    for (const Cell& cell : cells) {
      html += *cell.name != '\0' ? fmt::format("<td class=\"{}\">", cell.name) : "<td>";
      html += cell.html + "</td>";
    }
    out_.write(html + "</tr>\n");
  }

  void close_table(std::uint64_t rows, std::uint64_t limit) {
    out_.write("</tbody></table></div>\n");
    if (rows == 0) out_.write("<p>None.</p>\n");
    if (rows > limit) {
      out_.write(
          fmt::format("<p>And {} more, which --format csv writes.</p>\n", grouped(rows - limit)));
    }
  }

  void write_tables() {
    section("sums", "Sums");
    write_table("By tool", "Tool", figures_.tools);
    write_table("By client", "Client", figures_.clients);
    write_table("By decision", "Decision", figures_.decisions);
    end_section();
  }

  void write_table(const char* caption, const char* name, const CountedTable& table) {
    open_table(
        caption,
        {{name}, {"Calls", true}, {"Ok", true}, {"Errors", true}, {"Rows", true}, {"Bytes", true}});
    const auto rows = table.rows();
    for (std::size_t i = 0; i < rows.size() && i < kRowLimit; ++i) {
      const Counts& counts = rows[i].counts;
      row({text_cell(rows[i].text), number_cell(counts.calls), number_cell(counts.ok),
           number_cell(counts.errors), number_cell(counts.rows), number_cell(counts.bytes)});
    }
    close_table(rows.size(), kRowLimit);
  }

  void write_refusals() {
    section("refusals", "Refusals and failures by reason");
    open_table("Refusals and failures by reason",
               {{"Reason"}, {"What it means"}, {"Tool"}, {"Calls", true}, {"First"}, {"Last"}});
    const auto rows = figures_.refusals();
    for (std::size_t i = 0; i < rows.size() && i < kRowLimit; ++i) {
      row({text_cell(reason_text(rows[i].reason)), text_cell(reason_meaning(rows[i].reason)),
           text_cell(rows[i].tool), number_cell(rows[i].span.count), time_cell(rows[i].span.first),
           time_cell(rows[i].span.last)});
    }
    close_table(rows.size(), kRowLimit);
    end_section();
  }

  void write_writes() {
    const ApprovalCounts& approvals = figures_.approvals;
    section("writes", "Writes and approvals");
    out_.write(fmt::format("<p>Approvals: {} required, {} accepted, {} refused.</p>\n",
                           grouped(approvals.required), grouped(approvals.accepted),
                           grouped(approvals.refused)));
    if (frame_.has_journal) {
      out_.write(fmt::format(
          "<p>The operator's journal: {} approved, {} declined. An approval is joined with a write "
          "by policy, client, database, table and time: the record names no digest.</p>\n",
          grouped(frame_.journal_approved), grouped(frame_.journal_declined)));
    }
    open_table(
        "Every write and proposal",
        {{"Time"}, {"Client"}, {"Table"}, {"Decision"}, {"Status"}, {"Approved by"}, {"Why"}});
    std::uint64_t count = 0;
    figures_.writes.for_each([&](const std::string& line) {
      if (++count > kWriteLimit) return;
      const Json write = Json::parse(line);
      const auto text = [&](const char* name) { return write.value(name, std::string()); };
      row({time_cell(text("timestamp")), text_cell(text("client")), text_cell(text("table")),
           text_cell(text("decision")), text_cell(text("status")), text_cell(text("operator")),
           text_cell(text("reason"))});
    });
    close_table(count, kWriteLimit);
    end_section();
  }

  void write_combinations(const char* id, const char* title,
                          const std::vector<CombinationRow>& rows, const char* note) {
    section(id, title);
    out_.write(fmt::format("<p>{}</p>\n", note));
    open_table(title, {{"First"}, {"Last"}, {"Client"}, {"Tool"}, {"Objects"}, {"Calls", true}});
    for (std::size_t i = 0; i < rows.size() && i < kRowLimit; ++i) {
      row({time_cell(rows[i].span.first), time_cell(rows[i].span.last), text_cell(rows[i].client),
           text_cell(rows[i].tool), text_cell(rows[i].objects), number_cell(rows[i].span.count)});
    }
    close_table(rows.size(), kRowLimit);
    end_section();
  }

  void write_top(const char* id, const char* title, const TopCalls& top) {
    section(id, title);
    open_table(title, {{"Time"},
                       {"Client"},
                       {"Tool"},
                       {"Objects"},
                       {"Request"},
                       {"ms", true},
                       {"Rows", true},
                       {"Bytes", true}});
    for (const TopCall& call : top.calls()) {
      row({time_cell(call.timestamp), text_cell(call.client), text_cell(call.tool),
           text_cell(call.objects), text_cell(call.correlation_id), number_cell(call.duration_ms),
           number_cell(call.rows), number_cell(call.bytes)});
    }
    close_table(top.calls().size(), TopCalls::kLimit);
    end_section();
  }

  void write_missing() {
    section("missing", "What the audit cannot contain");
    out_.write("<ul>");
    for (const std::string_view sentence : what_is_missing()) {
      out_.write("<li>" + escape_markup(sentence) + "</li>\n");
    }
    out_.write("</ul>\n");
    end_section();
  }

  void write_provenance() {
    section("provenance", "Provenance");
    open_table("Files", {{"File"},
                         {"SHA-256 of the file as it lies"},
                         {"Lines", true},
                         {"Not readable", true},
                         {"First"},
                         {"Last"}});
    const auto time_or_none = [](const std::optional<UnixMs>& time) {
      return time ? time_cell(*time) : text_cell("none");
    };
    for (const FileFacts& file : log_.files) {
      row({text_cell(file.name),
           {.name = "hash", .html = file.sha256},
           number_cell(file.lines),
           number_cell(file.unreadable),
           time_or_none(file.first),
           time_or_none(file.last)});
    }
    close_table(log_.files.size(), log_.files.size());
    open_table("Gaps of more than 24 hours, and clocks that went back",
               {{"Kind"}, {"File"}, {"Line", true}, {"From"}, {"To"}});
    std::uint64_t count = 0;
    log_.gaps.for_each([&](const std::string& line) {
      if (++count > kRowLimit) return;
      const Json gap = Json::parse(line);
      const auto text = [&](const char* name) { return gap.value(name, std::string()); };
      row({text_cell(text("kind")), text_cell(text("file")),
           number_cell(gap.value("line", std::uint64_t{0})), time_cell(text("from")),
           time_cell(text("to"))});
    });
    close_table(count, kRowLimit);
    end_section();
  }

  AuditLog& log_;
  Figures& figures_;
  const ReportFrame& frame_;
  OutputTarget& out_;
};

}  // namespace

void write_html_report(AuditLog& log, const ReportFrame& frame, OutputTarget& out) {
  HtmlReport(log, frame, out).write();
}

}  // namespace kova::admin

#include <optional>
#include <string>

#include "admin/audit/report_formats.h"
#include "admin/common/json_output.h"

namespace kova::admin {

namespace {

Json time_or_null(const std::optional<UnixMs>& time) {
  return time ? Json(time_text(*time)) : Json(nullptr);
}

Json number_or_null(const std::optional<std::uint64_t>& number) {
  return number ? Json(*number) : Json(nullptr);
}

void add_counts(Json& object, const Counts& counts) {
  object["calls"] = counts.calls;
  object["ok"] = counts.ok;
  object["errors"] = counts.errors;
  object["rows"] = counts.rows;
  object["bytes"] = counts.bytes;
}

/// Writes the elements of a list with commas between them.
class List {
 public:
  List(OutputTarget& out, const char* name) : out_(out) {
    out_.write(std::string(",\"") + name + "\":[");
  }
  void add(const std::string& element) {
    if (!is_first_) out_.write(",");
    is_first_ = false;
    out_.write(element);
  }
  void close() { out_.write("]"); }

 private:
  OutputTarget& out_;
  bool is_first_ = true;
};

void write_files(const AuditLog& log, OutputTarget& out) {
  out.write("{\"files\":[");
  const char* separator = "";
  for (const FileFacts& file : log.files) {
    out.write(separator + json_line({{"name", file.name},
                                     {"sha256", file.sha256},
                                     {"lines", file.lines},
                                     {"unreadable", file.unreadable},
                                     {"first", time_or_null(file.first)},
                                     {"last", time_or_null(file.last)}}));
    separator = ",";
  }
  out.write("]");
}

void write_table(const CountedTable& table, const char* list, const char* member,
                 OutputTarget& out) {
  List rows(out, list);
  for (const CountedTable::Row& row : table.rows()) {
    Json object = {{member, row.text}};
    add_counts(object, row.counts);
    rows.add(json_line(object));
  }
  rows.close();
}

void write_spool(Spool& spool, const char* name, OutputTarget& out) {
  List list(out, name);
  spool.for_each([&](const std::string& line) { list.add(line); });
  list.close();
}

}  // namespace

void write_json_report(AuditLog& log, OutputTarget& out) {
  Figures& figures = log.figures;
  write_files(log, out);
  Json totals = Json::object();
  add_counts(totals, figures.totals);
  out.write(",\"totals\":" + json_line(totals));
  write_table(figures.tools, "by_tool", "tool", out);
  write_table(figures.clients, "by_client", "client", out);
  write_table(figures.decisions, "by_decision", "decision", out);
  out.write(",\"durations\":" +
            json_line({{"p50", number_or_null(figures.durations.percentile(500))},
                       {"p90", number_or_null(figures.durations.percentile(900))},
                       {"p99", number_or_null(figures.durations.percentile(990))},
                       {"max", number_or_null(figures.durations.max())}}));
  write_spool(figures.writes, "writes", out);
  write_spool(log.gaps, "gaps", out);
  out.write("}\n");
}

}  // namespace kova::admin

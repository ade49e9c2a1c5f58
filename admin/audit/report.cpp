#include "admin/audit/report.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/audit/audit_input.h"
#include "admin/audit/audit_log.h"
#include "admin/audit/report_formats.h"
#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

struct ReportOptions {
  std::string format = "html";
  std::string output;
  std::string journal;
  FilterOptions filter;
  std::vector<std::string> files;
};

std::vector<std::string> inputs_of(const ReportOptions& options) {
  std::vector<std::string> inputs = options.files;
  if (!options.journal.empty()) inputs.push_back(options.journal);
  return inputs;
}

void write_report(const ReportOptions& options, AuditLog& log, const ReportFrame& frame) {
  OutputTarget out(options.output, inputs_of(options));
  if (options.format == "json") {
    write_json_report(log, out);
  } else if (options.format == "csv") {
    write_csv_report(log, frame, out);
  } else if (options.format == "text") {
    write_text_report(log, frame, out);
  } else {
    write_html_report(log, frame, out);
  }
  out.finish();
}

int run(const ReportOptions& options) {
  if (std::count(options.files.begin(), options.files.end(), kStandardInput) > 1) {
    throw Refusal("standard input can be read once");
  }
  std::optional<JournalJoin> journal;
  if (!options.journal.empty()) journal.emplace(options.journal);
  ReportFrame frame{.filter = options.filter, .has_journal = journal.has_value()};
  if (journal) {
    frame.journal_approved = journal->approved();
    frame.journal_declined = journal->declined();
  }
  const auto log =
      std::make_unique<AuditLog>(options.filter.filter(), journal ? &*journal : nullptr);
  {
    Progress progress(options.files);
    for (const std::string& file : options.files) log->read(file, progress);
  }
  write_report(options, *log, frame);
  return kExitFine;
}

}  // namespace

RunCommand add_audit_report(CommandParser& parser) {
  const auto options = std::make_shared<ReportOptions>();
  parser.add_option("--format", options->format, "html (without it), text, json or csv")
      .one_of({"html", "text", "json", "csv"})
      .type_name("FORMAT");
  parser.add_option("--output", options->output, "Where to write; without it standard output")
      .not_empty()
      .type_name("FILE");
  parser.add_option("--journal", options->journal, "The operator's journal: who approved, and why")
      .not_empty()
      .type_name("FILE");
  add_filter_options(parser, options->filter);
  parser.add_option("FILE", options->files, "Audit files in their order, .gz too; - for one")
      .required();
  parser.footer(
      "Reads audit files once and says what happened, as one page that needs nothing else, or as\n"
      "figures for machines. The same input gives the same bytes. With --output the file appears\n"
      "when it is whole, readable by this account alone. Exit codes: 0 done, 2 it cannot be done.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin

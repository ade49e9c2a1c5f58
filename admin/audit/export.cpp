#include "admin/audit/export.h"

#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "admin/audit/audit_input.h"
#include "admin/audit/field_models.h"
#include "admin/audit/lines.h"
#include "admin/audit/output_target.h"
#include "admin/audit/record_filter.h"
#include "admin/common/output.h"
#include "base/text.h"
#include "platform/terminal.h"

namespace kova::admin {

namespace {

struct ExportOptions {
  std::string model;
  std::string output;
  FilterOptions filter;
  std::vector<std::string> files;
};

/// Writes the events of one file after the other.
class Exporter {
 public:
  Exporter(const ExportOptions& options, OutputTarget& out)
      : filter_(options.filter.filter()), to_ecs_(options.model == "ecs"), out_(out) {}

  void read(const std::string& file, Progress& progress) {
    std::uint64_t number = 0;
    std::uint64_t unreadable = 0;
    const auto take = [&](std::string_view line) {
      if (++number == 1 && line.starts_with(kByteOrderMark)) {
        line.remove_prefix(kByteOrderMark.size());
      }
      if (!take_line(line)) ++unreadable;
    };
    static_cast<void>(read_whole_audit_file(
        file, [&](std::string_view bytes) { splitter_.add(bytes, take); }, progress));
    splitter_.finish(take);
    if (unreadable > 0) {
      progress.clear();
      print_error(fmt::format("{}: {} of {} lines could not be read", file, unreadable, number));
    }
  }

 private:
  [[nodiscard]] bool take_line(std::string_view line) {
    AuditRecord record;
    if (!reader_.read(line, record)) return false;
    if (filter_.accepts(record)) {
      out_.write(json_line(to_ecs_ ? ecs_event(record) : ocsf_event(record)) + '\n');
    }
    return true;
  }

  RecordFilter filter_;
  bool to_ecs_;
  OutputTarget& out_;
  AuditRecordReader reader_;
  LineSplitter splitter_;
};

int run(const ExportOptions& options) {
  OutputTarget out(options.output, options.files);
  Exporter exporter(options, out);
  // On a terminal that shows the events it would stand among them.
  Progress progress(options.files, !options.output.empty() || !stdout_takes_colours());
  for (const std::string& file : options.files) exporter.read(file, progress);
  out.finish();
  return kExitFine;
}

}  // namespace

RunCommand add_audit_export(CommandParser& parser) {
  const auto options = std::make_shared<ExportOptions>();
  parser.add_option("--to", options->model, "ecs or ocsf")
      .one_of({"ecs", "ocsf"})
      .required()
      .type_name("MODEL");
  parser.add_option("--output", options->output, "Where to write; without it standard output")
      .not_empty()
      .type_name("FILE");
  add_filter_options(parser, options->filter);
  parser.add_option("FILE", options->files, "Audit files in their order, .gz too; - for one")
      .required();
  parser.footer(
      "Writes each record as one line of JSON in a field model that other systems read: the\n"
      "Elastic Common Schema 9.3, or the Open Cybersecurity Schema Framework 1.6 (class 6005).\n"
      "Lines that are no record are counted on standard error.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin

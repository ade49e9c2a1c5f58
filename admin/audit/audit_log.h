// An audit log that is read for a report: its files, their gaps, their figures.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/figures.h"
#include "admin/audit/lines.h"
#include "admin/audit/progress.h"
#include "admin/audit/record.h"
#include "admin/audit/record_filter.h"
#include "admin/audit/spool.h"

namespace kova::admin {

/// What is said of one file. Times are the earliest and the latest of its records.
struct FileFacts {
  std::string name;
  std::string sha256;
  std::uint64_t lines = 0;
  std::uint64_t unreadable = 0;
  std::optional<UnixMs> first;
  std::optional<UnixMs> last;
};

/// Reads files in the order of the calls. The filter chooses what is counted; the facts of the
/// files and the gaps are those of all records.
class AuditLog {
 public:
  AuditLog(RecordFilter filter, JournalJoin* journal)
      : figures(journal), filter_(std::move(filter)) {}

  /// Throws Refusal.
  void read(const std::string& name, Progress& progress);

  std::vector<FileFacts> files;
  Figures figures;
  /// One line of JSON each, in the order of the records: more than 24 hours without a record, and
  /// clocks that went back by more than two seconds, from the record before, across files too.
  Spool gaps;
  std::uint64_t gap_count = 0;
  std::uint64_t clock_count = 0;

 private:
  void take(std::string_view line, FileFacts& facts);
  void note_time(UnixMs time, FileFacts& facts);

  RecordFilter filter_;
  AuditRecordReader reader_;
  LineSplitter splitter_;
  std::optional<UnixMs> previous_;
};

}  // namespace kova::admin

// The forms in which a report is written. All are made from the same figures.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/audit_log.h"
#include "admin/audit/output_target.h"

namespace kova::admin {

/// What the report is about, as its reader is told.
struct ReportFrame {
  FilterOptions filter;
  bool has_journal = false;
  std::uint64_t journal_approved = 0;
  std::uint64_t journal_declined = 0;
};

/// One JSON object on one line; docs/audit-reading.md has its members.
void write_json_report(AuditLog& log, OutputTarget& out);
/// A page for a terminal of 80 columns.
void write_text_report(AuditLog& log, const ReportFrame& frame, OutputTarget& out);
/// RFC 4180 with a header; the first column names the table that a row is of.
void write_csv_report(AuditLog& log, const ReportFrame& frame, OutputTarget& out);
/// One HTML file that needs nothing else.
void write_html_report(AuditLog& log, const ReportFrame& frame, OutputTarget& out);

/// What an audit file cannot contain, one sentence each.
[[nodiscard]] const std::vector<std::string_view>& what_is_missing();
/// A sentence on each filter that was given.
[[nodiscard]] std::vector<std::string> filter_sentences(const FilterOptions& filter);
/// A text for a table of a page: unusual characters escaped, cut after 200 bytes with a note.
[[nodiscard]] std::string shown(std::string_view text);
/// With a comma between groups of three digits.
[[nodiscard]] std::string grouped(std::uint64_t number);
/// What a reason means, in a few words.
[[nodiscard]] std::string_view reason_meaning(Reason reason);

}  // namespace kova::admin

// The figures of a report, gathered record by record in bounded memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/combinations.h"
#include "admin/audit/durations.h"
#include "admin/audit/journal_join.h"
#include "admin/audit/record.h"
#include "admin/audit/spool.h"
#include "admin/audit/text_table.h"
#include "admin/audit/time_bins.h"
#include "admin/audit/top_calls.h"
#include "admin/common/json_output.h"

namespace kova::admin {

/// Sums; one that would exceed 64 bits stays at the largest number.
struct Counts {
  std::uint64_t calls = 0;
  std::uint64_t ok = 0;
  std::uint64_t errors = 0;
  std::uint64_t rows = 0;
  std::uint64_t bytes = 0;

  void add(const AuditRecord& record);
};

/// The distinct values of a member with their sums.
class CountedTable {
 public:
  CountedTable() : counts_(TextTable::kOtherId + 1) {}

  std::uint32_t add(const AuditRecord& record, std::string_view value) {
    const std::uint32_t id = texts_.id_of(value);
    counts_[id].add(record);
    return id;
  }
  [[nodiscard]] const TextTable& texts() const { return texts_; }

  struct Row {
    std::string_view text;
    Counts counts;
  };
  /// Most calls first, then by the text; kOther last.
  [[nodiscard]] std::vector<Row> rows() const;

 private:
  TextTable texts_;
  std::vector<Counts> counts_;
};

/// Why a call did not succeed, as far as its record tells.
enum class Reason { kDeny, kKillSwitch, kApprovalRequired, kQueryChecks, kFailed };
inline constexpr std::size_t kReasons = 5;
[[nodiscard]] std::string_view reason_text(Reason reason);

/// One row of the table of refusals.
struct RefusalRow {
  Reason reason;
  std::string_view tool;
  Span span;
};

/// A combination of client, tool and objects.
struct CombinationRow {
  std::string_view client;
  std::string_view tool;
  std::string_view objects;
  Span span;
};

/// What became of the writes that came before an operator, by their records.
struct ApprovalCounts {
  std::uint64_t required = 0;
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;
};

/// Everything that is counted of the records that a report is about.
class Figures {
 public:
  /// `journal` may be null; it is used by `add`.
  explicit Figures(JournalJoin* journal) : journal_(journal) {}

  void add(const AuditRecord& record);

  Counts totals;
  CountedTable tools;
  CountedTable clients;
  CountedTable decisions;
  Durations durations;
  TimeBins over_time;
  std::array<Bin, 24> hours{};
  TopCalls slowest;
  TopCalls largest;
  ApprovalCounts approvals;
  /// One line of JSON for each record of `kova_execute`; `operator` and `reason` are there when the
  /// journal names them.
  Spool writes;

  /// By the reason, then most calls first.
  [[nodiscard]] std::vector<RefusalRow> refusals() const;
  /// By the time of the first record; a row of kOther last, for combinations beyond the limit.
  [[nodiscard]] std::vector<CombinationRow> first_seen() const;
  [[nodiscard]] std::vector<CombinationRow> kill_switch_uses() const;

 private:
  [[nodiscard]] std::vector<CombinationRow> rows_of(const Combinations& combinations) const;
  void add_write(const AuditRecord& record);

  JournalJoin* journal_;
  /// The line of a write while it is made.
  std::string write_;
  TextTable objects_;
  Combinations first_seen_;
  Combinations kill_switch_;
  std::vector<Span> refusals_ = std::vector<Span>(kReasons * (TextTable::kOtherId + 1));
};

}  // namespace kova::admin

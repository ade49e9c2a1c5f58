#include "admin/audit/figures.h"

#include <algorithm>

namespace kova::admin {

namespace {

constexpr std::string_view kQueryTool = "kova_query";
constexpr UnixMs kHourMs = 3600000;
/// Bits of a number of a TextTable.
constexpr unsigned kIdBits = 13;
constexpr std::uint64_t kIdMask = (1U << kIdBits) - 1;
static_assert(TextTable::kOtherId <= kIdMask);

void add_bounded(std::uint64_t& sum, std::uint64_t number) {
  sum = number > UINT64_MAX - sum ? UINT64_MAX : sum + number;
}

// docs/audit.md, Decisions: a refusal by the checks of kova_query is recorded as "allow".
Reason reason_of(const AuditRecord& record) {
  if (record.decision == "deny") return Reason::kDeny;
  if (record.decision == "kill_switch") return Reason::kKillSwitch;
  if (record.decision == "approval_required") return Reason::kApprovalRequired;
  const bool before_engine = record.tool == kQueryTool && record.objects.empty();
  return before_engine ? Reason::kQueryChecks : Reason::kFailed;
}

std::size_t hour_of(UnixMs time) {
  constexpr std::int64_t kHours = 24;
  const std::int64_t hour = time / kHourMs % kHours;
  return static_cast<std::size_t>(time < 0 && time % kHourMs != 0 ? (hour + kHours - 1) % kHours
                                                                  : (hour + kHours) % kHours);
}

// `start` is everything before the value.
void append_member(std::string& line, std::string_view start, std::string_view value) {
  line += start;
  append_json_text(line, value);
}

}  // namespace

std::string_view reason_text(Reason reason) {
  constexpr std::string_view kTexts[kReasons] = {"deny", "kill_switch", "approval_required",
                                                 "query checks", "failed"};
  return kTexts[static_cast<std::size_t>(reason)];
}

void Counts::add(const AuditRecord& record) {
  ++calls;
  ++(record.ok() ? ok : errors);
  add_bounded(rows, record.rows);
  add_bounded(bytes, record.bytes);
}

std::vector<CountedTable::Row> CountedTable::rows() const {
  std::vector<Row> rows;
  for (std::uint32_t id = 0; id < texts_.size(); ++id) {
    rows.push_back({.text = texts_.text(id), .counts = counts_[id]});
  }
  std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
    return a.counts.calls != b.counts.calls ? a.counts.calls > b.counts.calls : a.text < b.text;
  });
  if (const Counts& others = counts_[TextTable::kOtherId]; others.calls > 0) {
    rows.push_back({.text = kOther, .counts = others});
  }
  return rows;
}

void Figures::add(const AuditRecord& record) {
  totals.add(record);
  const std::uint32_t tool = tools.add(record, record.tool);
  const std::uint32_t client = clients.add(record, record.client);
  decisions.add(record, record.decision);
  durations.add(record.duration_ms);
  slowest.add(record.duration_ms, record);
  largest.add(record.bytes, record);
  const std::uint64_t combination = (std::uint64_t{client} << (2 * kIdBits)) |
                                    (std::uint64_t{tool} << kIdBits) |
                                    objects_.id_of(record.objects);
  first_seen_.add(combination, record.time);
  const Reason reason = reason_of(record);
  if (reason == Reason::kKillSwitch) kill_switch_.add(combination, record.time);
  Ending ending = Ending::kOk;
  if (!record.ok()) {
    ending = reason == Reason::kFailed ? Ending::kFailed : Ending::kRefused;
    refusals_[static_cast<std::size_t>(reason) * (TextTable::kOtherId + 1) + tool].add(record.time);
  }
  over_time.add(record.time, ending);
  ++hours[hour_of(record.time)].calls[static_cast<std::size_t>(ending)];
  if (record.is_write()) add_write(record);
}

void Figures::add_write(const AuditRecord& record) {
  write_.clear();
  append_member(write_, "{\"timestamp\":", record.timestamp);
  append_member(write_, ",\"client\":", record.client);
  append_member(write_, ",\"table\":", record.objects);
  append_member(write_, ",\"decision\":", record.decision);
  append_member(write_, ",\"status\":", record.status);
  if (record.decision == "approval_required") ++approvals.required;
  // An invalid policy refuses before the table is known, and no token with it.
  if (record.decision == "deny" && !record.objects.empty()) ++approvals.refused;
  if (record.decision == "approval_accepted") {
    ++approvals.accepted;
    if (const JournalEntry* const entry = journal_ != nullptr ? journal_->take(record) : nullptr) {
      append_member(write_, ",\"operator\":", entry->person);
      append_member(write_, ",\"reason\":", entry->reason);
    }
  }
  write_ += '}';
  writes.add(write_);
}

std::vector<RefusalRow> Figures::refusals() const {
  std::vector<RefusalRow> rows;
  for (std::size_t reason = 0; reason < kReasons; ++reason) {
    const auto begin = rows.end() - rows.begin();
    for (std::uint32_t tool = 0; tool <= TextTable::kOtherId; ++tool) {
      const Span& span = refusals_[reason * (TextTable::kOtherId + 1) + tool];
      if (span.count == 0) continue;
      rows.push_back(
          {.reason = static_cast<Reason>(reason), .tool = tools.texts().text(tool), .span = span});
    }
    std::sort(rows.begin() + begin, rows.end(), [](const RefusalRow& a, const RefusalRow& b) {
      return a.span.count != b.span.count ? a.span.count > b.span.count : a.tool < b.tool;
    });
  }
  return rows;
}

std::vector<CombinationRow> Figures::rows_of(const Combinations& combinations) const {
  std::vector<CombinationRow> rows;
  rows.reserve(combinations.entries().size() + 1);
  for (const auto& [key, span] : combinations.entries()) {
    rows.push_back({.client = clients.texts().text((key >> (2 * kIdBits)) & kIdMask),
                    .tool = tools.texts().text((key >> kIdBits) & kIdMask),
                    .objects = objects_.text(key & kIdMask),
                    .span = span});
  }
  std::stable_sort(rows.begin(), rows.end(), [](const CombinationRow& a, const CombinationRow& b) {
    return a.span.first < b.span.first;
  });
  if (const Span& others = combinations.others(); others.count > 0) {
    rows.push_back({.client = kOther, .tool = kOther, .objects = kOther, .span = others});
  }
  return rows;
}

std::vector<CombinationRow> Figures::first_seen() const {
  return rows_of(first_seen_);
}

std::vector<CombinationRow> Figures::kill_switch_uses() const {
  return rows_of(kill_switch_);
}

}  // namespace kova::admin

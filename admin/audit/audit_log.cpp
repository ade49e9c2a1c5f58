#include "admin/audit/audit_log.h"

#include <algorithm>

#include "admin/audit/audit_input.h"
#include "admin/common/json_output.h"
#include "base/text.h"

namespace kova::admin {

namespace {

constexpr UnixMs kGapMs = 86400000;
constexpr UnixMs kStepMs = 2000;

}  // namespace

void AuditLog::read(const std::string& name, Progress& progress) {
  FileFacts facts;
  facts.name = name;
  const auto take_line = [&](std::string_view line) { take(line, facts); };
  ReadFile done = read_whole_audit_file(
      name, [&](std::string_view bytes) { splitter_.add(bytes, take_line); }, progress);
  splitter_.finish(take_line);
  facts.sha256 = std::move(done.sha256);
  files.push_back(std::move(facts));
}

void AuditLog::take(std::string_view line, FileFacts& facts) {
  ++facts.lines;
  // Some editors and shells put it before a file that they copy.
  if (facts.lines == 1 && line.starts_with(kByteOrderMark)) {
    line.remove_prefix(kByteOrderMark.size());
  }
  AuditRecord record;
  if (!reader_.read(line, record)) {
    ++facts.unreadable;
    return;
  }
  note_time(record.time, facts);
  if (filter_.accepts(record)) figures.add(record);
}

void AuditLog::note_time(UnixMs time, FileFacts& facts) {
  facts.first = std::min(facts.first.value_or(time), time);
  facts.last = std::max(facts.last.value_or(time), time);
  const UnixMs previous = previous_.value_or(time);
  previous_ = time;
  const bool is_gap = time - previous > kGapMs;
  const bool is_step = previous - time > kStepMs;
  if (!is_gap && !is_step) return;
  ++(is_gap ? gap_count : clock_count);
  gaps.add(json_line({{"kind", is_gap ? "gap" : "clock"},
                      {"file", facts.name},
                      {"line", facts.lines},
                      {"from", time_text(previous)},
                      {"to", time_text(time)}}));
}

}  // namespace kova::admin

#include "admin/audit/journal_join.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "admin/approve/journal.h"
#include "admin/common/refusal.h"
#include "base/string_scan.h"
#include "platform/shared_input.h"

namespace kova::admin {

namespace {

/// How far the clocks of server and operator may lie apart.
constexpr UnixMs kSlackMs = 2000;
/// A statement of 32 KB whose every byte is escaped, and the rest.
constexpr std::size_t kLineLimit = std::size_t{512} * 1024;
constexpr std::size_t kJournalBlockSize = std::size_t{64} * 1024;
/// Bytes of a person and of a reason that are kept.
constexpr std::size_t kTextLimit = 1024;
/// What an entry and a key take beside their texts, with what the allocator adds.
constexpr std::size_t kEntryCost = sizeof(JournalEntry) + 64;
constexpr std::size_t kKeyCost = 1024;

/// A text as the audit file has it, which knows printable ASCII alone.
std::string cleaned(std::string_view text) {
  std::string clean(text);
  std::replace_if(
      clean.begin(), clean.end(), [](char c) { return c < 0x20 || c > 0x7E; }, '_');
  return clean;
}

/// What must be equal in both files. No text of an audit record holds a line feed.
std::string key_of(std::string_view policy, std::string_view client, std::string_view database,
                   std::string_view table) {
  return fmt::format("{}\n{}\n{}\n{}", policy, client, database, table);
}

// What stands after the last line end that was read.
void check_rest(const std::string& text, std::uint64_t& number) {
  if (text.empty()) return;
  ++number;
  throw Refusal(
      fmt::format("column {}: {}", std::min(text.size(), kLineLimit) + 1,
                  text.size() > kLineLimit ? "the line is too long" : "the line has no end"));
}

}  // namespace

JournalJoin::JournalJoin(const std::string& path) {
  SharedInput file;
  if (path.find('\0') != std::string::npos || !file.open(path.c_str())) {
    throw Refusal(path + ": the file cannot be opened");
  }
  std::string text;
  std::uint64_t number = 0;
  for (bool at_end = false; !at_end;) {
    const std::size_t kept = text.size();
    text.resize(kept + kJournalBlockSize);
    std::size_t got = 0;
    if (!file.read(text.data() + kept, kJournalBlockSize, got)) {
      throw Refusal(path + ": the file cannot be read");
    }
    text.resize(kept + got);
    at_end = got == 0;
    std::size_t begin = 0;
    try {
      for (std::size_t end = 0; (end = text.find('\n', begin)) != text.npos; begin = end + 1) {
        ++number;
        add_line(std::string_view(text).substr(begin, end - begin));
      }
      text.erase(0, begin);
      if (at_end || text.size() > kLineLimit) check_rest(text, number);
    } catch (const Refusal& refusal) {
      throw Refusal(fmt::format("{}: line {}, {}", path, number, refusal.what()));
    }
  }
  for (auto& [key, entries] : waiting_) {
    std::stable_sort(
        entries.begin(), entries.end(),
        [](const JournalEntry& a, const JournalEntry& b) { return a.decided < b.decided; });
  }
}

void JournalJoin::add_line(std::string_view line) {
  const Decision decision = parse_decision(line);
  if (decision.decision != kApproved) {
    ++declined_;
    return;
  }
  ++approved_;
  // Copies: what was read may hold far more room than its text.
  JournalEntry entry{.decided = *parse_time(decision.timestamp),
                     .expires = *parse_time(*decision.expires_at),
                     .person = std::string(cut_text(decision.person, kTextLimit)),
                     .reason = std::string(cut_text(decision.reason, kTextLimit))};
  const auto [place, is_new] =
      waiting_.try_emplace(key_of(cleaned(decision.policy), cleaned(decision.client_id),
                                  cleaned(decision.database), cleaned(decision.table)));
  kept_ += kEntryCost + entry.person.size() + entry.reason.size() +
           (is_new ? kKeyCost + place->first.size() : 0);
  if (kept_ > kMemoryLimit) throw Refusal("column 1: the journal is too large");
  place->second.push_back(std::move(entry));
}

const JournalEntry* JournalJoin::take(const AuditRecord& record) {
  const auto found =
      waiting_.find(key_of(record.policy, record.client, record.database, record.objects));
  if (found == waiting_.end()) return nullptr;
  std::deque<JournalEntry>& entries = found->second;
  constexpr std::uint64_t kDurationLimit = 1ULL << 40U;
  const UnixMs begin =
      record.time - static_cast<UnixMs>(std::min(record.duration_ms, kDurationLimit));
  // An approval that had expired before this write fits none that follows.
  while (!entries.empty() && entries.front().expires + kSlackMs < begin) entries.pop_front();
  if (entries.empty() || entries.front().decided - kSlackMs > record.time) return nullptr;
  taken_ = std::move(entries.front());
  entries.pop_front();
  return &taken_;
}

}  // namespace kova::admin

// Who approved a write, and why: the operator's journal beside the audit file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>

#include "admin/audit/record.h"

namespace kova::admin {

/// What the journal says of one decision.
struct JournalEntry {
  UnixMs decided;
  UnixMs expires;
  std::string person;
  std::string reason;
};

/// The approvals of a journal, each of which goes to at most one write. A record of the audit file
/// names neither digest nor nonce: policy, client, database, table and time tell which approval it
/// used; of several that fit, the one that was decided first.
class JournalJoin {
 public:
  /// Bytes.
  static constexpr std::size_t kMemoryLimit = std::size_t{64} * 1024 * 1024;

  /// Reads a journal. Throws Refusal, with the line, for a malformed one or one whose approvals
  /// need more than kMemoryLimit.
  explicit JournalJoin(const std::string& path);

  /// Takes the approval that a write with an accepted token used. Records come in their order.
  [[nodiscard]] const JournalEntry* take(const AuditRecord& record);

  [[nodiscard]] std::uint64_t approved() const { return approved_; }
  [[nodiscard]] std::uint64_t declined() const { return declined_; }

 private:
  void add_line(std::string_view line);

  std::map<std::string, std::deque<JournalEntry>> waiting_;
  JournalEntry taken_;
  std::size_t kept_ = 0;
  std::uint64_t approved_ = 0;
  std::uint64_t declined_ = 0;
};

}  // namespace kova::admin

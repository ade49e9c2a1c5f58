#include "admin/approvals/approval_states.h"

#include <map>
#include <utility>

namespace kova::admin {

namespace {

/// How far the times of a file system, of the server and of this machine may lie apart.
constexpr UnixMs kSlackMs = 2000;

class Join {
 public:
  Join(std::span<const Decision> decisions, std::span<const Marker> markers)
      : decisions_(decisions), markers_(markers) {
    for (const Marker& marker : markers) by_nonce_.emplace(marker.nonce, &marker);
  }

  void add_decisions(std::string_view policy, UnixMs now) {
    for (const Decision& decision : decisions_) {
      const Marker* const marker = marker_of(decision);
      if (decision.policy != policy && marker == nullptr) continue;
      entries_.push_back({.decision = &decision, .marker = marker});
      if (marker != nullptr) by_nonce_.erase(marker->nonce);
      describe(entries_.back(), now);
    }
  }

  /// The markers that no decision has taken.
  void add_markers() {
    for (const Marker& marker : markers_) {
      if (!by_nonce_.contains(marker.nonce)) continue;
      entries_.push_back({.decision = nullptr, .marker = &marker});
      Approval& approval = entries_.back().approval;
      approval.state = kUnjournaled;
      approval.nonce = marker.nonce;
      approval.used_at = time_text(marker.time);
    }
  }

  void add_use(const AuditUse& use) {
    Entry* const entry = entry_of(use);
    Approval& approval = entry != nullptr ? entry->approval : entries_.emplace_back().approval;
    if (entry == nullptr) approval.state = kUnjournaled;
    if (entry != nullptr) entry->has_use = true;
    if (entry != nullptr && entry->decision != nullptr) approval.state = kUsed;
    if (!approval.table) approval.table = use.table;
    if (!approval.used_at) approval.used_at = time_text(use.end);
  }

  [[nodiscard]] std::vector<Approval> take() {
    std::vector<Approval> approvals;
    approvals.reserve(entries_.size());
    for (Entry& entry : entries_) approvals.push_back(std::move(entry.approval));
    return approvals;
  }

 private:
  struct Entry {
    const Decision* decision = nullptr;
    const Marker* marker = nullptr;
    bool has_use = false;
    Approval approval = {};
  };

  [[nodiscard]] const Marker* marker_of(const Decision& decision) const {
    if (!decision.nonce) return nullptr;
    const auto found = by_nonce_.find(lower_case(*decision.nonce));
    return found != by_nonce_.end() ? found->second : nullptr;
  }

  static void describe(Entry& entry, UnixMs now) {
    const Decision& decision = *entry.decision;
    Approval& approval = entry.approval;
    approval = {.state = kDeclined,
                .nonce = decision.nonce,
                .digest = decision.digest,
                .table = decision.table,
                .type = decision.type,
                .person = decision.person,
                .decided_at = decision.timestamp,
                .expires_at = decision.expires_at,
                .used_at = {}};
    if (decision.decision != kApproved) return;
    approval.state = now > *parse_time(*decision.expires_at) ? kExpired : kPending;
    if (entry.marker == nullptr) return;
    approval.state = kUsed;
    approval.used_at = time_text(entry.marker->time);
  }

  [[nodiscard]] static bool made_during(const Entry& entry, const AuditUse& use) {
    return entry.marker != nullptr && entry.marker->time >= use.begin - kSlackMs &&
           entry.marker->time <= use.end + kSlackMs;
  }

  [[nodiscard]] static bool valid_during(const Entry& entry, const AuditUse& use) {
    const Decision* const decision = entry.decision;
    return decision != nullptr && decision->nonce && decision->policy == use.policy &&
           use.end >= *parse_time(decision->timestamp) - kSlackMs &&
           use.begin <= *parse_time(*decision->expires_at) + kSlackMs;
  }

  /// The entry that a use belongs to and that has none yet, or null.
  [[nodiscard]] Entry* entry_of(const AuditUse& use) {
    for (const auto belongs : {made_during, valid_during}) {
      for (Entry& entry : entries_) {
        const bool same_table = !entry.approval.table || *entry.approval.table == use.table;
        if (!entry.has_use && same_table && belongs(entry, use)) return &entry;
      }
    }
    return nullptr;
  }

  std::span<const Decision> decisions_;
  std::span<const Marker> markers_;
  std::map<std::string_view, const Marker*> by_nonce_;
  std::vector<Entry> entries_;
};

}  // namespace

std::vector<Approval> join_approvals(std::string_view policy, std::span<const Decision> decisions,
                                     std::span<const Marker> markers,
                                     std::span<const AuditUse> uses, UnixMs now) {
  Join join(decisions, markers);
  join.add_decisions(policy, now);
  join.add_markers();
  for (const AuditUse& use : uses) {
    if (use.policy == policy) join.add_use(use);
  }
  return join.take();
}

}  // namespace kova::admin

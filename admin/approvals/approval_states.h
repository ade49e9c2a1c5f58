// What has become of each approval: the journal, the replay markers and the audit log, joined.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "admin/approvals/audit_uses.h"
#include "admin/approvals/markers.h"
#include "admin/approve/journal.h"
#include "admin/common/times.h"

namespace kova::admin {

inline constexpr std::string_view kPending = "pending";
inline constexpr std::string_view kUsed = "used";
inline constexpr std::string_view kExpired = "expired";
/// A token was used and the journal has no line for it.
inline constexpr std::string_view kUnjournaled = "unjournaled";

/// One approval; what is not known or does not apply is absent.
struct Approval {
  std::string_view state;  ///< one of the above, or kDeclined
  std::optional<std::string> nonce;
  std::optional<std::string> digest;
  std::optional<std::string> table;
  std::optional<std::string> type;
  std::optional<std::string> person;
  std::optional<std::string> decided_at;
  std::optional<std::string> expires_at;
  std::optional<std::string> used_at;
};

/// Joins the three for one policy. A marker belongs to the decision of its nonce, of whichever
/// policy. A use of the audit log belongs to the marker that was made while it ran, or else to a
/// decision on its table that was valid then: a marker may have been removed since. Decisions
/// come in the journal's order, uses without one after them.
[[nodiscard]] std::vector<Approval> join_approvals(std::string_view policy,
                                                   std::span<const Decision> decisions,
                                                   std::span<const Marker> markers,
                                                   std::span<const AuditUse> uses, UnixMs now);

}  // namespace kova::admin

// The audit log: one line of JSON for every finished tool call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/text.h"
#include "platform/clock.h"
#include "policy/policy.h"

namespace kova {

inline constexpr std::size_t kAuditTextCapacity = 129;
inline constexpr std::size_t kAuditRecordCapacity = 1200;

/// What the running tool call puts into its record. One call per process at a time.
struct AuditContext {
  char tool[kAuditTextCapacity];
  char correlation_id[96];
  char objects[kAuditTextCapacity];
  char policy_decision[32];
  std::uint64_t started_ms;
};

/// How a tool call ended.
struct AuditOutcome {
  bool success;
  std::uint32_t rows;
  std::uint32_t bytes;
};

/// Whom the record is about, as the environment and the policy name them.
struct AuditIdentity {
  std::string_view client;
  std::string_view database;
  std::string_view policy;
};

/// Copies a text for the record: a quotation mark or backslash gets a backslash, a byte outside
/// 0x20..0x7E becomes "_". Stops before a byte when capacity minus 2 characters are there.
void clean_audit_text(std::string_view source, TextOut out);

/// Formats one record with its CR LF. False when it does not fit.
[[nodiscard]] bool format_audit_record(const AuditContext& context, const AuditIdentity& identity,
                                       AuditOutcome outcome, const UtcTime& now,
                                       std::uint64_t now_ms, TextOut out);

/// Appends the record of a finished call to the file that KOVA_MCP_AUDIT names; without one it
/// does nothing. Every failure is silent: auditing never changes a reply.
void write_audit_record(const AuditContext& context, const McpPolicy& policy, AuditOutcome outcome);

/// Called by a server whose standard output carries the protocol, before it starts a thread or a
/// child. When KOVA_MCP_AUDIT names that output, the variable is taken out of the environment, so
/// that the children, whose output is another one, write no record into the protocol either.
void refuse_audit_into_output();

}  // namespace kova

// The audit log's records of writes that a token has let through.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/common/times.h"

namespace kova::admin {

/// One accepted token: the tool call took from `begin` to `end`.
struct AuditUse {
  UnixMs begin;
  UnixMs end;
  std::string policy;
  std::string table;
};

/// The use that one line of the log records; nothing is added for any other line, broken ones
/// included: the log belongs to the server, which drops records that it cannot write whole.
void add_audit_use(std::string_view line, std::vector<AuditUse>& uses);

/// Those of a file, of any size; none without one. Throws Refusal for one that cannot be read, or
/// that is no regular file.
[[nodiscard]] std::vector<AuditUse> read_audit_uses(const std::string& path);

}  // namespace kova::admin

// The audit file: whether records can be written, and when the last one was.
#pragma once

#include <optional>
#include <string_view>

#include "admin/common/times.h"
#include "admin/doctor/check.h"
#include "platform/file_system.h"

namespace kova::admin {

/// Judges the file of KOVA_MCP_AUDIT at the time `now`.
[[nodiscard]] Check check_audit(UnixMs now);

/// Judges the file system that records go to.
void judge_file_system(Findings& findings, const FileSystemFacts& facts);

/// The time of the last record in the end of an audit file; none when its
/// last line is no record. A line that does not end yet is passed over.
[[nodiscard]] std::optional<UnixMs> last_record_time(std::string_view end_of_file);

}  // namespace kova::admin

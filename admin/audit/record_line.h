// A record as one line for people.
#pragma once

#include <string>
#include <string_view>

#include "admin/audit/record.h"

namespace kova::admin {

/// The line without its end. Unusual characters are escaped.
[[nodiscard]] std::string record_line(const AuditRecord& record, bool colour);

/// The same for a line that is no record.
[[nodiscard]] std::string unreadable_line(std::string_view line);

}  // namespace kova::admin

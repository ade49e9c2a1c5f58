// Records in the field models that other systems read.
#pragma once

#include "admin/audit/record.h"
#include "admin/common/json_output.h"

namespace kova::admin {

/// Elastic Common Schema 9.3. Members that do not apply are absent.
[[nodiscard]] Json ecs_event(const AuditRecord& record);

/// Open Cybersecurity Schema Framework 1.6, class 6005 (Datastore Activity).
[[nodiscard]] Json ocsf_event(const AuditRecord& record);

}  // namespace kova::admin

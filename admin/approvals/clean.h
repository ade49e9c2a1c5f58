// kova-admin approvals clean: removes replay markers that no token needs any more.
#pragma once

#include <span>
#include <vector>

#include "admin/approvals/markers.h"
#include "admin/approve/journal.h"
#include "admin/common/command_line.h"

namespace kova::admin {

/// The markers whose tokens expired more than 24 hours before `now`, as the journal says. One
/// without a line in the journal never counts.
[[nodiscard]] std::vector<Marker> removable_markers(std::span<const Decision> decisions,
                                                    std::span<const Marker> markers, UnixMs now);

/// Adds the command's options and returns what runs it.
[[nodiscard]] RunCommand add_approvals_clean(CommandParser& parser);

}  // namespace kova::admin

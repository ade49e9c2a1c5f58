// What the deployment needs of the machine.
#pragma once

#include "admin/doctor/check.h"
#include "platform/machine_state.h"

namespace kova::admin {

/// Judges the clock: tokens and audit records carry its time.
[[nodiscard]] Check check_clock(ClockState state);

/// Judges what a process may have against what an HTTP listener with all its sessions needs.
[[nodiscard]] Check check_limits(const ProcessLimits& limits);

}  // namespace kova::admin

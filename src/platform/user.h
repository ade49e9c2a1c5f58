// The person and the machine that this process runs for.
#pragma once

#include "base/text.h"

namespace kova {

/// The name of the user who started this process, whatever rights it has taken on since; a user
/// without a name by number. False when it does not fit.
[[nodiscard]] bool real_user_name(TextOut name);

/// This machine's name. False when it cannot be had or does not fit.
[[nodiscard]] bool host_name(TextOut name);

}  // namespace kova

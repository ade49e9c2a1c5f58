// Where this executable is.
#pragma once

#include "base/text.h"

namespace kova {

/// Writes the path of this executable. False when it cannot be had or does not fit.
[[nodiscard]] bool own_path(TextOut out);

}  // namespace kova

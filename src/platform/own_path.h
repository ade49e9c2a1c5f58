// The path of this executable.
#pragma once

#include "base/text.h"

namespace kova {

/// Writes the path of this executable; the one that it had, when another file was installed there
/// meanwhile. False when it cannot be had or does not fit.
[[nodiscard]] bool own_path(TextOut out);

}  // namespace kova

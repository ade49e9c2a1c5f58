// The path of this executable.
#pragma once

#include "base/text.h"

namespace kova {

/// Writes the path of this executable; after the file was replaced, the path that it had. False
/// when the system does not tell or the path does not fit.
[[nodiscard]] bool own_path(TextOut out);

}  // namespace kova

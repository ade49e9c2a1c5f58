// Names for files that are made to see whether files can be made.
#pragma once

#include <string>

namespace kova::admin {

/// A file name that nobody else uses.
[[nodiscard]] std::string probe_name();

}  // namespace kova::admin

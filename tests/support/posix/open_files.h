// Which files this process has open.
#pragma once

#include <string>

namespace kova::testing {

/// Whether a descriptor of this process refers to the folder or to something in it. Descriptors
/// that other threads open and close meanwhile do not matter.
[[nodiscard]] bool is_open_below(const std::string& folder);

}  // namespace kova::testing

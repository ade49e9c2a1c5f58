// The rule that no object of a message has two equal keys.
#pragma once

#include "json/json.h"

namespace kova {

/// Whether some object of the document has two members whose decoded keys are equal, or a member
/// that is no pair of a key and a value. Keys that decode to more than 255 bytes, or not at all,
/// take no part. Costs n log n comparisons for n keys of one object.
[[nodiscard]] bool has_duplicate_keys(const JsonDoc& doc);

}  // namespace kova

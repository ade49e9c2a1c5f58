// --embed: builds the AI collections without serving anybody.
#pragma once

#include <string>

namespace kova::sample {

/// Brings the collections of all databases in the folder up to date, with progress on standard
/// error. Prints a line for each collection; false when one of them cannot be built.
[[nodiscard]] bool embed_all(const std::string& folder);

}  // namespace kova::sample

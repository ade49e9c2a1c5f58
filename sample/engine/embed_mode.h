// Building collections without serving anybody.
#pragma once

#include <string>

namespace kova::sample {

/// Runs the jobs of all databases in the folder. Shows on standard error how far a build is, then
/// prints a line for each collection. False when one of them cannot be built; the line says why.
[[nodiscard]] bool embed_collections(const std::string& folder);

}  // namespace kova::sample

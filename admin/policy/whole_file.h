// Files that are there whole or not at all.
#pragma once

#include <string>
#include <string_view>

namespace kova::admin {

/// Writes a file beside its place and renames it, replacing what was there. Throws Refusal, which
/// names the file; nothing is left then.
void write_whole_file(const std::string& path, std::string_view bytes);

}  // namespace kova::admin

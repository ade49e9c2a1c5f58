// Whole files as text.
#pragma once

#include <cstddef>
#include <string>

#include "admin/common/secret_text.h"

namespace kova::admin {

/// The bytes of a regular file of at most `limit` bytes. Throws Refusal, which names the file.
[[nodiscard]] SecretText read_file(const std::string& path, std::size_t limit);

/// Takes one line end, LF or CR LF, off the end of a text.
void cut_line_end(SecretText& text);

/// The bytes of standard input up to its end, at most `limit` of them. Throws Refusal for more.
[[nodiscard]] SecretText read_standard_input(std::size_t limit);

}  // namespace kova::admin

// Untrusted text made safe to print: nothing in it moves the cursor, reorders or hides.
#pragma once

#include <string>
#include <string_view>

#include "admin/common/utf8.h"

namespace kova::admin {

/// Whether a character is shown by an escape: control and format characters, what has no width or
/// reorders, combining marks, every blank but U+0020, private and unassigned planes, and malformed
/// bytes.
[[nodiscard]] bool is_unusual(const Character& character);

/// The escape of an unusual character: \n, \r, \t, \xHH for a byte, \u{HEX} for a code point.
[[nodiscard]] std::string escape_of(const Character& character);

/// The text with its unusual characters escaped. Backslashes stay as they are, so that paths stay
/// readable: the text is for reading, not for reading back.
[[nodiscard]] std::string printable(std::string_view text);

}  // namespace kova::admin

// UTF-8 by RFC 3629: no overlong form, no surrogate, nothing above U+10FFFF.
#pragma once

namespace kova {

/// Judges the UTF-8 from `p` on, where a byte beyond ASCII stands and at least one other byte of
/// the same text precedes. Answers a place further on up to which all is well: the end, a quotation
/// mark, a backslash or a control byte, or somewhere between two characters. Null when malformed.
/// Never reads at or beyond `end`.
[[nodiscard]] const char* skip_utf8(const char* p, const char* end);

}  // namespace kova

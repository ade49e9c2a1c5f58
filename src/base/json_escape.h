// Escaping text for a JSON string literal (RFC 8259), copying while it looks.
#pragma once

#include <cstddef>

namespace kova {

/// How backspace and form feed are written; everything else is the same for both.
enum class EscapeStyle {
  kShort,    ///< \b and \f: the protocol's own texts
  kNumeric,  ///< \u0008 and \u000c: results of the database
};

/// The longest escape.
inline constexpr std::size_t kEscapeLimit = 6;
/// The least space that escape_json needs before each step.
inline constexpr std::size_t kEscapeSpaceMinimum = 16 + kEscapeLimit;

struct EscapeProgress {
  const char* source;  ///< the first byte that was not taken
  char* target;        ///< after the last byte that was written
};

/// Copies [source, source_end) to [target, target_end) with its escapes, until all is taken or less
/// than kEscapeSpaceMinimum is left. Bytes after the returned target may have been overwritten.
EscapeProgress escape_json(EscapeStyle style, const char* source, const char* source_end,
                           char* target, char* target_end);

/// Writes the escape of one byte that needs one and returns its length.
std::size_t write_escape(EscapeStyle style, char byte, char* target);

}  // namespace kova

// Taking characters off UTF-8 text (RFC 3629).
#pragma once

#include <cstddef>
#include <string_view>

namespace kova::admin {

/// One character, or one byte that begins none.
struct Character {
  char32_t code;     ///< the code point; the byte when it is malformed
  std::size_t size;  ///< in bytes
  bool well_formed;
};

/// The character that a text begins with, which is not empty. No overlong form, no surrogate and
/// nothing above U+10FFFF is well-formed.
[[nodiscard]] Character first_character(std::string_view text);

/// The index of the first byte that belongs to no character, or npos.
[[nodiscard]] std::size_t find_malformed(std::string_view text);

}  // namespace kova::admin

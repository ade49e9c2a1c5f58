#include "admin/common/printable.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace kova::admin {

namespace {

struct Range {
  char32_t first, last;
};

/// The Unicode Standard, chapters 23 (special areas and format characters) and 7.9 (combining
/// marks); section 6.2 for blanks.
constexpr Range kUnusual[] = {
    {0x0000, 0x001F},     // C0 controls
    {0x007F, 0x00A0},     // delete, C1 controls, no-break space
    {0x00AD, 0x00AD},     // soft hyphen
    {0x0300, 0x036F},     // combining marks
    {0x0483, 0x0489},     // Cyrillic combining marks
    {0x0591, 0x05C7},     // Hebrew points
    {0x0600, 0x0605},     // Arabic number signs
    {0x0610, 0x061C},     // Arabic marks, Arabic letter mark
    {0x064B, 0x065F},     // Arabic points
    {0x06D6, 0x06ED},     // Arabic annotation signs
    {0x070F, 0x070F},     // Syriac abbreviation mark
    {0x115F, 0x1160},     // Hangul fillers
    {0x1680, 0x1680},     // Ogham space mark
    {0x17B4, 0x17B5},     // Khmer inherent vowels
    {0x180B, 0x180F},     // Mongolian selectors and separator
    {0x1AB0, 0x1AFF},     // combining marks, extended
    {0x1DC0, 0x1DFF},     // combining marks, supplement
    {0x2000, 0x200F},     // spaces, zero-width characters, direction marks
    {0x2028, 0x202F},     // separators, direction embeddings, narrow no-break space
    {0x205F, 0x206F},     // mathematical space, invisible operators, direction isolates
    {0x20D0, 0x20FF},     // combining marks for symbols
    {0x2800, 0x2800},     // blank Braille pattern
    {0x3000, 0x3000},     // ideographic space
    {0x3164, 0x3164},     // Hangul filler
    {0xE000, 0xF8FF},     // private use
    {0xFE00, 0xFE0F},     // variation selectors
    {0xFE20, 0xFE2F},     // combining half marks
    {0xFEFF, 0xFEFF},     // byte order mark
    {0xFFA0, 0xFFA0},     // half-width Hangul filler
    {0xFFF0, 0xFFFF},     // specials
    {0x1BCA0, 0x1BCA3},   // shorthand format controls
    {0x1D173, 0x1D17A},   // musical format controls
    {0xE0000, 0x10FFFF},  // tags, variation selectors, private use
};

}  // namespace

bool is_unusual(const Character& character) {
  return !character.well_formed ||
         std::any_of(std::begin(kUnusual), std::end(kUnusual), [&](const Range& range) {
           return character.code >= range.first && character.code <= range.last;
         });
}

std::string escape_of(const Character& character) {
  if (character.code == '\n') return "\\n";
  if (character.code == '\r') return "\\r";
  if (character.code == '\t') return "\\t";
  const auto number = static_cast<std::uint32_t>(character.code);
  return !character.well_formed || number < 0x80 ? fmt::format("\\x{:02X}", number)
                                                 : fmt::format("\\u{{{:X}}}", number);
}

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const Character character = first_character(text);
    if (is_unusual(character)) {
      shown += escape_of(character);
    } else {
      shown += text.substr(0, character.size);
    }
    text.remove_prefix(character.size);
  }
  return shown;
}

}  // namespace kova::admin

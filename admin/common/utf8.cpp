#include "admin/common/utf8.h"

namespace kova::admin {

namespace {

unsigned char byte_at(std::string_view text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

/// The length that a first byte announces, 0 when it begins no character.
std::size_t announced_size(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return 2;
  if (first >= 0xE0 && first <= 0xEF) return 3;
  if (first >= 0xF0 && first <= 0xF4) return 4;
  return 0;
}

bool is_valid(char32_t code, std::size_t size) {
  if (size == 3) return code >= 0x800 && (code < 0xD800 || code > 0xDFFF);
  return size != 4 || (code >= 0x10000 && code <= 0x10FFFF);
}

}  // namespace

Character first_character(std::string_view text) {
  const unsigned char first = byte_at(text, 0);
  const Character malformed{.code = first, .size = 1, .well_formed = false};
  const std::size_t size = announced_size(first);
  if (size == 0 || size > text.size()) return malformed;
  if (size == 1) return {.code = first, .size = 1, .well_formed = true};
  char32_t code = first & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    const unsigned char next = byte_at(text, i);
    if ((next & 0xC0U) != 0x80U) return malformed;
    code = code << 6U | (next & 0x3FU);
  }
  if (!is_valid(code, size)) return malformed;
  return {.code = code, .size = size, .well_formed = true};
}

std::size_t find_malformed(std::string_view text) {
  for (std::size_t index = 0; index < text.size();) {
    const Character character = first_character(text.substr(index));
    if (!character.well_formed) return index;
    index += character.size;
  }
  return std::string_view::npos;
}

}  // namespace kova::admin

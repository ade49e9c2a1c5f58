#include "admin/approve/statement_rows.h"

#include "admin/common/printable.h"
#include "admin/common/utf8.h"

namespace kova::admin {

namespace {

/// From here on characters may be two columns wide (UAX 11); all of them count so.
constexpr char32_t kFirstWide = 0x1100;

std::string shown_form(const Character& character, std::string_view bytes) {
  if (character.code == '\\') return "\\\\";
  return is_unusual(character) ? escape_of(character) : std::string(bytes);
}

std::size_t width_of(const Character& character, const std::string& shown) {
  if (is_unusual(character) || character.code < 0x80) return shown.size();
  return character.code < kFirstWide ? 1 : 2;
}

}  // namespace

Place place_of(std::string_view text, std::size_t index) {
  Place place{.line = 1, .column = 1};
  for (std::size_t at = 0; at < index;) {
    const Character character = first_character(text.substr(at));
    at += character.size;
    if (character.code == '\n') {
      ++place.line;
      place.column = 1;
    } else {
      ++place.column;
    }
  }
  return place;
}

std::vector<StatementRow> statement_rows(std::string_view text, std::size_t columns) {
  std::vector<StatementRow> rows;
  Place place{.line = 1, .column = 1};
  std::size_t width = columns;
  for (std::size_t at = 0; at < text.size();) {
    const Character character = first_character(text.substr(at));
    const std::string shown = shown_form(character, text.substr(at, character.size));
    const std::size_t added = width_of(character, shown);
    if (rows.empty() || width + added > columns) {
      rows.push_back({.place = place, .begin = at, .shown = {}});
      width = 0;
    }
    rows.back().shown += shown;
    width += added;
    ++place.column;
    if (character.code == '\n') {
      place = {.line = place.line + 1, .column = 1};
      width = columns;
    }
    at += character.size;
  }
  return rows;
}

}  // namespace kova::admin

// A statement laid out in rows, and places in it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kova::admin {

/// A place in a text, both counted from 1: lines end at a line feed, columns are characters.
struct Place {
  std::size_t line;
  std::size_t column;
};

[[nodiscard]] Place place_of(std::string_view text, std::size_t index);

/// One row: the place of its first character and its text, unusual characters escaped and a
/// backslash doubled, so that each row can be read in one way only.
struct StatementRow {
  Place place;
  std::size_t begin;  ///< index of the row's first byte in the statement
  std::string shown;
};

/// All of the text in rows of at most `columns` columns, which is at least 20. A row also ends
/// after a line feed, which is shown as an escape. A character of more than one column counts so.
[[nodiscard]] std::vector<StatementRow> statement_rows(std::string_view text, std::size_t columns);

}  // namespace kova::admin

#include "policy/sql_words.h"

#include <algorithm>

#include "base/ascii.h"
#include "base/text.h"

namespace kova {

namespace {

constexpr bool begins_word(char c) {
  return is_alpha(c) || c == '_';
}

/// Takes the word that begins at `begin`; there is none at the end of the text.
bool take_word(std::string_view& sql, std::size_t begin, TextOut& word) {
  std::size_t end = begin;
  while (end < sql.size() && is_word_byte(sql[end])) ++end;
  word.copy_cut(slice(sql, begin, end - begin));
  std::transform(word.data(), word.data() + word.length(), word.data(), to_upper);
  sql.remove_prefix(end);
  return end != begin;
}

}  // namespace

std::size_t taken_word_begin(std::string_view sql, std::string_view rest) {
  std::size_t begin = sql.size() - rest.size();
  while (begin > 0 && is_word_byte(sql[begin - 1])) --begin;
  while (begin < sql.size() && !begins_word(sql[begin])) ++begin;
  return begin;
}

std::size_t skip_literal(std::string_view sql, std::size_t open) {
  std::size_t quote = sql.find('\'', open + 1);
  while (quote != sql.npos && slice(sql, quote + 1).starts_with('\'')) {
    quote = sql.find('\'', quote + 2);
  }
  return quote == sql.npos ? sql.npos : quote + 1;
}

bool only_space_from(std::string_view sql, std::size_t index) {
  const std::string_view rest = slice(sql, index);
  return std::all_of(rest.begin(), rest.end(), is_space);
}

bool begins_comment(std::string_view sql, std::size_t index) {
  const std::string_view rest = slice(sql, index);
  return rest.starts_with("--") || rest.starts_with("/*") || rest.starts_with('#');
}

bool policy_next_word(std::string_view& sql, TextOut& word) {
  std::size_t begin = 0;
  while (begin < sql.size() && !begins_word(sql[begin])) {
    begin = sql[begin] == '\'' ? skip_literal(sql, begin) : begin + 1;
  }
  return take_word(sql, std::min(begin, sql.size()), word);
}

bool next_word_anywhere(std::string_view& sql, TextOut& word) {
  const auto* const begin = std::find_if(sql.begin(), sql.end(), begins_word);
  return take_word(sql, static_cast<std::size_t>(begin - sql.begin()), word);
}

}  // namespace kova

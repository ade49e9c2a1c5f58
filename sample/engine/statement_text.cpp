#include "engine/statement_text.h"

#include <algorithm>

#include "base/ascii.h"

namespace kova::sample {

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view unterminated(std::string_view statement) {
  statement = trimmed(statement);
  if (statement.ends_with(';')) statement.remove_suffix(1);
  return statement;
}

std::string_view take_word(std::string_view& text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  const auto end = std::find_if_not(text.begin(), text.end(), is_word_byte);
  const std::string_view word = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  text.remove_prefix(word.size());
  return word;
}

bool take_last_word(std::string_view& text, std::string_view& word) {
  word = take_word(text);
  text = trimmed(text);
  return !word.empty() && text.empty();
}

bool take_keyword(std::string_view& text, std::string_view keyword) {
  return equal_ignoring_case(take_word(text), keyword);
}

bool take_literal(std::string_view& text, std::string& value) {
  text = trimmed(text);
  if (!text.starts_with('\'')) return false;
  value.clear();
  for (;;) {
    text.remove_prefix(1);
    const std::size_t end = text.find('\'');
    if (end == std::string_view::npos) return false;
    value += text.substr(0, end);
    text.remove_prefix(end + 1);
    if (!text.starts_with('\'')) return true;
    value += '\'';
  }
}

}  // namespace kova::sample

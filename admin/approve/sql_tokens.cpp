#include "admin/approve/sql_tokens.h"

#include <algorithm>

#include "base/ascii.h"
#include "policy/sql_words.h"

namespace kova::admin {

namespace {

/// The index after the last byte from `begin` on that belongs to the class.
template <typename Class>
std::size_t end_of(std::string_view text, std::size_t begin, Class belongs) {
  while (begin < text.size() && belongs(text[begin])) ++begin;
  return begin;
}

std::size_t number_end(std::string_view text, std::size_t begin) {
  const std::size_t end = end_of(text, begin, is_digit);
  const bool has_fraction = end + 1 < text.size() && text[end] == '.' && is_digit(text[end + 1]);
  return has_fraction ? end_of(text, end + 1, is_digit) : end;
}

/// The index after the text in double quotes, or `npos` when an apostrophe or no quote ends it.
std::size_t quoted_end(std::string_view text, std::size_t begin) {
  const std::size_t end = text.find_first_of("\"'", begin + 1);
  return end != text.npos && text[end] == '"' ? end + 1 : text.npos;
}

SqlToken token_at(std::string_view text, std::size_t begin) {
  const auto make = [&](TokenKind kind, std::size_t end) {
    return SqlToken{
        .kind = kind, .begin = begin, .text = text.substr(begin, end - begin), .depth = 0};
  };
  const char c = text[begin];
  if (is_alpha(c) || c == '_') return make(TokenKind::kWord, end_of(text, begin, is_word_byte));
  if (is_digit(c)) return make(TokenKind::kNumber, number_end(text, begin));
  if (c == '\'') {
    return make(TokenKind::kLiteral, std::min(skip_literal(text, begin), text.size()));
  }
  if (c == '"' && quoted_end(text, begin) != text.npos) {
    return make(TokenKind::kQuoted, quoted_end(text, begin));
  }
  return make(TokenKind::kSign, begin + 1);
}

}  // namespace

std::vector<SqlToken> sql_tokens(std::string_view canonical) {
  std::vector<SqlToken> tokens;
  int depth = 0;
  for (std::size_t position = end_of(canonical, 0, is_space); position < canonical.size();) {
    SqlToken token = token_at(canonical, position);
    if (token.is_sign(')')) --depth;
    token.depth = depth;
    if (token.is_sign('(')) ++depth;
    position = end_of(canonical, position + token.text.size(), is_space);
    tokens.push_back(token);
  }
  return tokens;
}

}  // namespace kova::admin

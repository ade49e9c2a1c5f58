// The parts of a canonical write, for finding what a careful reader would look at.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace kova::admin {

enum class TokenKind {
  kWord,     ///< letters, digits and "_", beginning with a letter or "_"
  kNumber,   ///< digits, with a fraction
  kLiteral,  ///< in single quotes, as the write classifier reads it
  kQuoted,   ///< in double quotes, without an apostrophe in between
  kSign      ///< any other byte
};

struct SqlToken {
  TokenKind kind;
  std::size_t begin;
  std::string_view text;  ///< points into the statement
  int depth;              ///< how many parentheses are open around it

  [[nodiscard]] bool is_word(std::string_view word) const {
    return kind == TokenKind::kWord && text == word;
  }
  [[nodiscard]] bool is_sign(char sign) const {
    return kind == TokenKind::kSign && text.front() == sign;
  }
};

/// The tokens of a canonical statement, whose words are upper-cased. A double quote that has an
/// apostrophe before its end, or no end, is a sign: what follows is read as if it were not there.
[[nodiscard]] std::vector<SqlToken> sql_tokens(std::string_view canonical);

}  // namespace kova::admin

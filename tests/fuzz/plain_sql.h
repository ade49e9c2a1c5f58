// SQL text taken apart a second time, written apart from src/policy: what the checkers must say is
// worked out from these pieces and compared with what they say.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kova::fuzz {

/// A run of bytes that belong together.
struct SqlPiece {
  enum class Kind {
    kWord,
    kLiteral,      ///< with both of its quotation marks
    kOpenLiteral,  ///< runs to the end of the text
    kBlank,        ///< a run of white space
    kDashes,       ///< "--", "/*" or "#": a comment's beginning
    kOther,        ///< one byte
  };
  Kind kind;
  std::string_view text;
};

/// All pieces, in order; together they are the text. Good until the next call.
inline const std::vector<SqlPiece>& pieces_of(std::string_view sql);

/// A word as it is compared: upper-cased, its first 63 bytes.
inline std::string compared(std::string_view word) {
  std::string text(word.substr(0, 63));
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c ^ 0x20);
  }
  return text;
}

/// The words outside literals, as they are compared.
inline std::vector<std::string> plain_words(std::string_view sql) {
  std::vector<std::string> words;
  for (const SqlPiece& piece : pieces_of(sql)) {
    if (piece.kind == SqlPiece::Kind::kWord) words.push_back(compared(piece.text));
  }
  return words;
}

namespace plain_sql_detail {

enum class Class { kWordBegin, kDigit, kQuote, kBlank, kOther };

inline Class class_of(char c) {
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_') return Class::kWordBegin;
  if (c >= '0' && c <= '9') return Class::kDigit;
  if (c == '\'') return Class::kQuote;
  return std::string_view(" \t\n\v\f\r").find(c) != std::string_view::npos ? Class::kBlank
                                                                           : Class::kOther;
}

/// The size of the literal that `text` begins with; 0 when it does not end.
inline std::size_t literal_size(std::string_view text) {
  bool inside = true;
  for (std::size_t i = 1; i < text.size(); ++i) {
    // A quotation mark closes, and the next one opens again: what lies between two is a literal as
    // long as no other byte follows the closing one.
    if (text[i] == '\'') {
      inside = !inside;
    } else if (!inside) {
      return i;
    }
  }
  return inside ? 0 : text.size();
}

inline std::size_t run_size(std::string_view text, Class first, Class also) {
  std::size_t size = 1;
  while (size < text.size() && (class_of(text[size]) == first || class_of(text[size]) == also)) {
    ++size;
  }
  return size;
}

inline SqlPiece first_piece(std::string_view text) {
  using Kind = SqlPiece::Kind;
  switch (class_of(text[0])) {
    case Class::kWordBegin:
      return {Kind::kWord, text.substr(0, run_size(text, Class::kWordBegin, Class::kDigit))};
    case Class::kBlank:
      return {Kind::kBlank, text.substr(0, run_size(text, Class::kBlank, Class::kBlank))};
    case Class::kQuote: {
      const std::size_t size = literal_size(text);
      return size == 0 ? SqlPiece{Kind::kOpenLiteral, text}
                       : SqlPiece{Kind::kLiteral, text.substr(0, size)};
    }
    default:
      break;
  }
  const std::string_view two = text.substr(0, 2);
  if (two == "--" || two == "/*") return {Kind::kDashes, two};
  if (text[0] == '#') return {Kind::kDashes, text.substr(0, 1)};
  return {Kind::kOther, text.substr(0, 1)};
}

}  // namespace plain_sql_detail

inline const std::vector<SqlPiece>& pieces_of(std::string_view sql) {
  static std::vector<SqlPiece> pieces;
  pieces.clear();
  while (!sql.empty()) {
    pieces.push_back(plain_sql_detail::first_piece(sql));
    sql.remove_prefix(pieces.back().text.size());
  }
  return pieces;
}

}  // namespace kova::fuzz

// Statements made at random, from a fixed seed, and other spellings of them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace kova::testing {

/// A statement in pieces: text outside literals, runs of white space, and literals.
struct Piece {
  enum Kind { kText, kSpace, kLiteral } kind;
  std::string bytes;
};
using Pieces = std::vector<Piece>;

/// Makes writes on T, ORDERS and LOG that the classifier accepts when it lets these be written.
class WriteGenerator {
 public:
  std::size_t below(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
  }
  template <std::size_t N>
  std::string one_of(const char* const (&choices)[N]) {
    return choices[below(N)];
  }
  Pieces statement() {
    static constexpr const char* kHeads[] = {"insert into t", "update t set", "delete from orders",
                                             "Update Log Set", "INSERT INTO ORDERS"};
    static constexpr const char* kTexts[] = {
        "a",      "=",   "1",  "(",          ")",    ",",       "where", "values", "Id_9",
        "*",      "-",   "/",  "\"Quoted\"", "[b]",  "select",  "9x",    "<>",     "\xC3\xA9",
        "a.b",    "||",  "or", "null",       "\x01", "{x}",     "$1",    "?",      "drop_log",
        "alters", "0.5", "\\", "\xFF",       "a+b",  "between", "%",     "set",    "\xE2\x82\xAC"};
    Pieces pieces;
    if (below(3) == 0) pieces.push_back({Piece::kSpace, spaces()});
    // The head's words, with a run of white space between each two.
    const std::string head = one_of(kHeads);
    for (std::size_t begin = 0; begin <= head.size();) {
      const std::size_t end = std::min(head.find(' ', begin), head.size());
      pieces.push_back({Piece::kText, head.substr(begin, end - begin)});
      pieces.push_back({Piece::kSpace, spaces()});
      begin = end + 1;
    }
    for (std::size_t length = below(20); length > 0; --length) {
      const Piece::Kind last = pieces.back().kind;
      switch (below(4)) {
        case 0:
          if (last != Piece::kLiteral) pieces.push_back({Piece::kLiteral, literal()});
          break;
        case 1:
          if (last != Piece::kSpace) pieces.push_back({Piece::kSpace, spaces()});
          break;
        default:
          // Two texts never touch, so that no comment comes about.
          if (last == Piece::kText) pieces.push_back({Piece::kSpace, spaces()});
          pieces.push_back({Piece::kText, one_of(kTexts)});
      }
    }
    return pieces;
  }
  static std::string joined(const Pieces& pieces) {
    std::string text;
    for (const Piece& piece : pieces) text += piece.bytes;
    return text;
  }

  /// The same statement to the eye: other runs of white space where there is one, other letter case
  /// outside literals, with or without its semicolon, other white space at the ends.
  std::string respelled(Pieces pieces) {
    for (Piece& piece : pieces) {
      if (piece.kind == Piece::kSpace) piece.bytes = spaces();
      if (piece.kind != Piece::kText) continue;
      for (char& c : piece.bytes) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (letter && below(2) == 0) c = static_cast<char>(c ^ 0x20);
      }
    }
    if (pieces.front().kind == Piece::kSpace && below(2) == 0) pieces.erase(pieces.begin());
    if (pieces.back().kind == Piece::kSpace && below(2) == 0) pieces.pop_back();
    std::string text = (below(2) == 0 ? spaces() : "") + joined(pieces);
    if (below(2) == 0) text += spaces();
    if (below(2) == 0) text += ";";
    return below(2) == 0 ? text + spaces() : text;
  }

  /// The statement with one literal changed; false when it has none.
  bool change_a_literal(Pieces& pieces) {
    std::vector<Piece*> literals;
    for (Piece& piece : pieces) {
      if (piece.kind == Piece::kLiteral) literals.push_back(&piece);
    }
    if (literals.empty()) return false;
    std::string& text = literals[below(literals.size())]->bytes;
    // The units between the quotes: single bytes and pairs of quotes.
    std::vector<std::string> units;
    for (std::size_t i = 1; i + 1 < text.size(); ++i) {
      units.emplace_back(1, text[i]);
      if (text[i] == '\'') {
        units.back() += '\'';
        ++i;
      }
    }
    const std::size_t place = below(units.size() + 1);
    const std::size_t kind = place == units.size() ? 0 : below(4);
    if (kind == 0) {
      units.insert(units.begin() + static_cast<std::ptrdiff_t>(place), literal_byte());
    } else if (kind == 1) {
      units.erase(units.begin() + static_cast<std::ptrdiff_t>(place));
    } else {
      std::string other = literal_byte();
      while (other == units[place]) other = literal_byte();
      units[place] = other;
    }
    std::string changed = "'";
    for (const std::string& unit : units) changed += unit;
    text = changed + "'";
    return true;
  }

 private:
  std::string spaces() {
    static constexpr std::string_view kSpaces = " \t\n\v\f\r";
    std::string run;
    for (std::size_t length = 1 + below(4); length > 0; --length) run += kSpaces[below(6)];
    return run;
  }
  /// A byte that may stand in a literal; a quote comes doubled.
  std::string literal_byte() {
    const char byte = static_cast<char>(1 + below(255));
    return byte == '\'' ? "''" : std::string(1, byte);
  }
  std::string literal() {
    std::string text = "'";
    for (std::size_t length = below(12); length > 0; --length) text += literal_byte();
    return text + "'";
  }

  std::mt19937 random_{20251125};
};

}  // namespace kova::testing

// The word scanner against a second one, and the marks of literals and comments.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/plain_sql.h"
#include "fuzz/require.h"
#include "policy/sql_words.h"

namespace {

using kova::fuzz::require;
using kova::fuzz::SqlPiece;

void check_words(std::string_view sql) {
  std::string_view rest = sql;
  char buffer[kova::kWordCapacity];
  for (const SqlPiece& piece : kova::fuzz::pieces_of(sql)) {
    if (piece.kind != SqlPiece::Kind::kWord) continue;
    kova::TextOut word(buffer);
    require(kova::policy_next_word(rest, word), "every word is found");
    require(rest.data() == piece.text.data() + piece.text.size(), "a word is taken off whole");
    require(word.view() == kova::fuzz::compared(piece.text), "a word is upper-cased and cut");
  }
  kova::TextOut word(buffer);
  require(!kova::policy_next_word(rest, word) && rest.empty(), "nothing else is a word");
}

void check_words_anywhere(std::string_view sql) {
  // Without quotation marks nothing is a literal.
  std::string open(sql);
  for (char& c : open) c = c == '\'' ? ' ' : c;
  std::string_view rest = sql;
  char buffer[kova::kWordCapacity];
  for (const std::string& expected : kova::fuzz::plain_words(open)) {
    kova::TextOut word(buffer);
    require(kova::next_word_anywhere(rest, word) && word.view() == expected,
            "words inside literals are found too");
  }
  kova::TextOut word(buffer);
  require(!kova::next_word_anywhere(rest, word) && rest.empty(), "nothing else is a word");
}

void check_marks(std::string_view sql) {
  std::size_t at = 0;
  for (const SqlPiece& piece : kova::fuzz::pieces_of(sql)) {
    using Kind = SqlPiece::Kind;
    if (piece.kind == Kind::kLiteral) {
      require(kova::skip_literal(sql, at) == at + piece.text.size(), "a literal has one end");
    } else if (piece.kind == Kind::kOpenLiteral) {
      require(kova::skip_literal(sql, at) == std::string_view::npos, "an open literal has none");
    }
    require(kova::begins_comment(sql, at) == (piece.kind == Kind::kDashes),
            "comments begin in the same places");
    at += piece.text.size();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view sql(reinterpret_cast<const char*>(data), size);
  check_words(sql);
  check_words_anywhere(sql);
  check_marks(sql);
  return 0;
}

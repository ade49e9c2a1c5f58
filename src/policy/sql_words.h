// Words, literals and comments of SQL text: what its checkers share.
//
//   char text[kWordCapacity];
//   TextOut word(text);
//   while (policy_next_word(sql, word)) ...   // over "a.B1, 'it''s' c": A, B1, C
#pragma once

#include <cstddef>
#include <string_view>

#include "base/text.h"

namespace kova {

/// Bytes of a statement that a client may send.
inline constexpr std::size_t kSqlLimit = 32768;

/// The room for one word, with its terminator: words are compared by their first 63 characters.
inline constexpr std::size_t kWordCapacity = 64;

/// The check that a text came to and, where one word or sign decided, its place: what a tool for
/// the authors of policies shows beside the message. The checkers take a pointer to one, or null.
struct CheckTrace {
  static constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

  std::string_view check;         ///< a stable name
  std::size_t offset = kNowhere;  ///< in bytes of the statement
};

/// Sets what a trace shows.
inline void trace_check(CheckTrace* trace, std::string_view check,
                        std::size_t offset = CheckTrace::kNowhere) {
  if (trace != nullptr) *trace = {.check = check, .offset = offset};
}

/// The index of the word that next_word_anywhere or policy_next_word has just taken off `sql`,
/// given what is left of it.
[[nodiscard]] std::size_t taken_word_begin(std::string_view sql, std::string_view rest);

/// Takes the next word off the front of `sql`: letters, digits and "_", beginning with a letter or
/// "_" (digits before it are skipped, as is every other byte). Single-quoted literals are skipped;
/// an open one runs to the end. The word is written upper-cased and cut to the capacity, the whole
/// of it is taken off. False at the end of the text.
[[nodiscard]] bool policy_next_word(std::string_view& sql, TextOut& word);

/// The same without regard to literals: words inside them are taken too.
[[nodiscard]] bool next_word_anywhere(std::string_view& sql, TextOut& word);

/// The index after the single-quoted literal whose opening quote stands at `open`; two quotes in a
/// row are one escaped quote. `npos` when the literal does not end.
[[nodiscard]] std::size_t skip_literal(std::string_view sql, std::size_t open);

/// Whether nothing but white space stands from this index on.
[[nodiscard]] bool only_space_from(std::string_view sql, std::size_t index);

/// Whether a comment ("--", "/*" or "#") begins at this index.
[[nodiscard]] bool begins_comment(std::string_view sql, std::size_t index);

}  // namespace kova

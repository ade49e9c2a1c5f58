// The terms of a text: its words, and the pieces of words that match where a whole word does not.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kova::sample {

struct Term {
  std::string word;
  float weight;  ///< the sum over its occurrences
};

/// The word's 64-bit FNV-1a hash (Fowler, Noll and Vo; RFC 9923).
[[nodiscard]] std::uint64_t term_hash(std::string_view term);

/// Adds the words of a text; each occurrence counts `weight`. Words are runs of letters, digits and
/// bytes beyond ASCII, in lower case and stemmed; the most frequent English words are left out.
void add_terms(std::string_view text, float weight, std::vector<Term>& terms);

/// The hashes of the word's pieces: all sequences of 3 to 5 bytes in "<word>" (Cavnar and Trenkle,
/// "N-Gram-Based Text Categorization", 1994).
[[nodiscard]] std::vector<std::uint64_t> pieces_of(const std::string& word);

/// Takes the endings off an English word in lower case: first the plural (the "S stemmer" of
/// Harman, "How Effective Is Suffixing?", 1991), then one ending such as -ing, -er, -ation; so that
/// "edits", "editing" and "editor" are one word. Stems need not be words.
[[nodiscard]] std::string stem(std::string word);

}  // namespace kova::sample

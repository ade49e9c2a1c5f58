#include "engine/ai/terms.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/ascii.h"

namespace kova::sample {

namespace {

constexpr std::size_t kWordLimit = 64;
constexpr std::size_t kPieceMinimum = 3;
constexpr std::size_t kPieceLimit = 5;
constexpr std::size_t kStemMinimum = 3;

constexpr std::array<std::string_view, 66> kStopWords = {
    "a",    "about", "all",   "also",  "an",   "and",   "any",   "are",  "as",    "at",   "be",
    "but",  "by",    "can",   "do",    "etc",  "find",  "for",   "from", "has",   "have", "how",
    "i",    "if",    "in",    "into",  "is",   "it",    "its",   "like", "me",    "my",   "need",
    "no",   "not",   "of",    "on",    "one",  "or",    "other", "over", "some",  "such", "than",
    "that", "the",   "their", "these", "this", "to",    "up",    "use",  "used",  "uses", "using",
    "via",  "want",  "was",   "we",    "when", "which", "will",  "with", "works", "you",  "your"};
static_assert(std::is_sorted(kStopWords.begin(), kStopWords.end()));

// The longest first; at most one is removed.
constexpr std::string_view kEndings[] = {"ation", "ating", "ator", "ment", "ated", "ing",
                                         "ion",   "ate",   "er",   "or",   "ed"};

bool is_term_byte(char c) {
  return is_alnum(c) || static_cast<unsigned char>(c) >= 0x80;
}

bool ends_in_double_consonant(std::string_view word) {
  const std::size_t size = word.size();
  return size > kStemMinimum && word[size - 1] == word[size - 2] &&
         std::string_view("bdgmnprt").find(word[size - 1]) != std::string_view::npos;
}

std::string without_plural(std::string word) {
  const std::string_view text = word;
  if (text.size() > 4 && text.ends_with("ies")) return word.substr(0, word.size() - 3) + "y";
  const bool singular = text.ends_with("us") || text.ends_with("ss") || text.ends_with("is");
  if (text.size() > 3 && text.ends_with('s') && !singular) word.pop_back();
  return word;
}

void add_word(std::string word, float weight, std::vector<Term>& terms) {
  if (std::binary_search(kStopWords.begin(), kStopWords.end(), word)) return;
  word = stem(std::move(word));
  const auto known =
      std::find_if(terms.begin(), terms.end(), [&](const Term& term) { return term.word == word; });
  if (known == terms.end()) {
    terms.push_back({std::move(word), weight});
  } else {
    known->weight += weight;
  }
}

}  // namespace

std::uint64_t term_hash(std::string_view term) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char byte : term) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= 0x100000001B3;
  }
  return hash;
}

std::vector<std::uint64_t> pieces_of(const std::string& word) {
  const std::string marked = "<" + word + ">";
  std::vector<std::uint64_t> pieces;
  for (std::size_t size = kPieceMinimum; size <= kPieceLimit; ++size) {
    for (std::size_t at = 0; at + size <= marked.size(); ++at) {
      pieces.push_back(term_hash(std::string_view(marked).substr(at, size)));
    }
  }
  return pieces;
}

std::string stem(std::string word) {
  word = without_plural(std::move(word));
  for (const std::string_view ending : kEndings) {
    if (!word.ends_with(ending)) continue;
    if (word.size() < ending.size() + kStemMinimum) continue;
    word.resize(word.size() - ending.size());
    if (ends_in_double_consonant(word)) word.pop_back();
    break;
  }
  if (word.size() > kStemMinimum && word.ends_with('e')) word.pop_back();
  return word;
}

void add_terms(std::string_view text, float weight, std::vector<Term>& terms) {
  std::string word;
  for (const char byte : text) {
    if (is_term_byte(byte)) {
      if (word.size() < kWordLimit) word += to_lower(byte);
      continue;
    }
    if (!word.empty()) add_word(std::exchange(word, {}), weight, terms);
  }
  if (!word.empty()) add_word(std::move(word), weight, terms);
}

}  // namespace kova::sample

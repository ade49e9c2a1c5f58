// The local embedding provider: texts become vectors by what the collection's own texts teach.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/text_terms.h"
#include "engine/vector.h"

namespace kova::sample {

/// The name that collections and statements give the provider.
inline constexpr std::string_view kProvider = "LOCAL";

/// Embeds texts.
///
/// Every term has a pseudo-random vector with few elements that are not zero, made from its hash
/// (feature hashing: Weinberger and others, "Feature Hashing for Large Scale Multitask Learning",
/// 2009). A word's vector is that, a share of the mean vector of the texts around the word, and a
/// smaller one of its pieces. The mean brings words of like surroundings together, as "photo" and
/// "image" (random indexing: Kanerva, Kristofersson and Holst, 2000); the pieces bring misspelt and
/// compound words near. A text's vector is the sum of its words' vectors, each weighted with the
/// logarithm of its frequency and with the inverse document frequency (Salton and Buckley,
/// "Term-Weighting Approaches in Automatic Text Retrieval", 1988).
///
/// The same texts in the same order teach the same vectors. Used by one thread while it learns,
/// then by any.
class Embedding {
 public:
  struct Word {
    std::uint32_t documents = 0;  ///< texts with the word
    Vector vector{};
  };
  using Words = std::unordered_map<std::uint64_t, Word>;

  /// First pass over the texts: counts.
  void count(const std::vector<Term>& terms);
  /// Between the passes: forgets the words of too few texts to learn from.
  void begin_relating();
  /// Second pass over the same texts: gathers what stands around each word.
  void relate(const std::vector<Term>& terms);
  /// Behind the passes.
  void end_relating();

  /// In the place of the passes: what `documents` and `words` said after them.
  void restore(std::uint32_t documents) { documents_ = documents; }
  void restore(std::uint64_t hash, const Word& word) { words_[hash] = word; }

  [[nodiscard]] std::uint32_t documents() const { return documents_; }
  [[nodiscard]] const Words& words() const { return words_; }

  /// Of length 1, or all zero for a text without words.
  [[nodiscard]] Vector embed(const std::vector<Term>& terms) const;

 private:
  [[nodiscard]] float weight_of(const Term& term) const;

  std::uint32_t documents_ = 0;
  Words words_;
  std::unordered_map<std::uint64_t, std::uint32_t> counts_;
  Vector mean_{};
};

}  // namespace kova::sample

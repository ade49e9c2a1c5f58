// The provider LOCAL: makes vectors of texts, by what a collection's own texts teach.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "engine/ai/terms.h"
#include "engine/ai/vector.h"

namespace kova::sample {

/// A word that stands in enough texts to learn something about it.
struct LearntWord {
  std::uint32_t texts = 0;  ///< texts with the word
  Vector vector{};
};

/// What a collection's texts teach.
struct Model {
  std::uint32_t texts = 0;
  std::unordered_map<std::string, LearntWord> words;
};

/// Finds a learnt word; null for any other. The result is valid until the next call.
using FindWord = std::function<const LearntWord*(const std::string& word)>;

/// Learns from the terms of all texts. The same texts in the same order teach the same.
///
/// A word's own vector is pseudo-random with few elements that are not zero, made from its hash
/// (feature hashing: Weinberger and others, "Feature Hashing for Large Scale Multitask Learning",
/// 2009). Its learnt vector adds a share of the mean vector of the texts with the word, which
/// brings words of like surroundings together, as "photo" and "image" (random indexing: Kanerva,
/// Kristofersson and Holst, 2000).
[[nodiscard]] Model learn(const std::vector<std::vector<Term>>& texts);

/// A text's vector, of length 1 or all zero for a text without words: the sum of its words'
/// vectors, each weighted with the logarithm of its frequency and with its inverse frequency among
/// the `texts` that were learnt from (Salton and Buckley, "Term-Weighting Approaches in Automatic
/// Text Retrieval", 1988), and of smaller vectors of their pieces, for misspelt and compound words.
[[nodiscard]] Vector embed(const std::vector<Term>& terms, std::uint32_t texts,
                           const FindWord& find);
/// The same with a model in memory.
[[nodiscard]] Vector embed(const std::vector<Term>& terms, const Model& model);

}  // namespace kova::sample

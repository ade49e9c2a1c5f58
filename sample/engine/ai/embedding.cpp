#include "engine/ai/embedding.h"

#include <cmath>

namespace kova::sample {

namespace {

constexpr std::uint32_t kTextsMinimum = 3;  // to learn about a word
constexpr int kWordProbes = 8;
constexpr int kPieceProbes = 2;
// The shares that ranked Debian's package summaries best.
constexpr float kContextShare = 0.6F;
constexpr float kContextDoubt = 3;  // so many texts halve the share
constexpr float kPieceShare = 0.35F;
constexpr float kIdfMinimum = 0.1F;

void add_scaled(Vector& sum, const Vector& addend, float factor) {
  for (std::size_t i = 0; i < kDimension; ++i) sum[i] += factor * addend[i];
}

// SplitMix64 (Steele, Lea and Flood, "Fast Splittable Pseudorandom Number Generators", 2014).
std::uint64_t next_random(std::uint64_t& state) {
  state += 0x9E3779B97F4A7C15;
  std::uint64_t mixed = state;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return mixed ^ (mixed >> 31);
}

// Adds the own vector of a word or piece, which is about as long as `length`.
void add_own_vector(std::uint64_t hash, int probes, float length, Vector& sum) {
  const float step = length / std::sqrt(static_cast<float>(probes));
  std::uint64_t state = hash;
  for (int probe = 0; probe < probes; ++probe) {
    const std::uint64_t random = next_random(state);
    sum[random % kDimension] += (random >> 63) != 0 ? step : -step;
  }
}

void add_pieces(const std::string& word, float length, Vector& sum) {
  const std::vector<std::uint64_t> pieces = pieces_of(word);
  const float step = length / std::sqrt(static_cast<float>(pieces.size()));
  for (const std::uint64_t piece : pieces) add_own_vector(~piece, kPieceProbes, step, sum);
}

float weight_of(const Term& term, std::uint32_t texts, const LearntWord* learnt) {
  const float with = learnt == nullptr ? 0 : static_cast<float>(learnt->texts);
  const float idf = std::log((static_cast<float>(texts) + 1) / (with + 1));
  return std::log1p(term.weight) * (idf + kIdfMinimum);
}

void count_words(const std::vector<std::vector<Term>>& texts, Model& model) {
  model.texts = static_cast<std::uint32_t>(texts.size());
  std::unordered_map<std::string, std::uint32_t> counts;
  for (const std::vector<Term>& terms : texts) {
    for (const Term& term : terms) ++counts[term.word];
  }
  for (const auto& [word, count] : counts) {
    if (count >= kTextsMinimum) model.words[word].texts = count;
  }
}

LearntWord* find_in(Model& model, const std::string& word) {
  const auto found = model.words.find(word);
  return found == model.words.end() ? nullptr : &found->second;
}

// Sums up the texts around each word, and all texts in `mean`.
void relate_words(const std::vector<std::vector<Term>>& texts, Model& model, Vector& mean) {
  for (const std::vector<Term>& terms : texts) {
    Vector text{};
    for (const Term& term : terms) {
      const float weight = weight_of(term, model.texts, find_in(model, term.word));
      add_own_vector(term_hash(term.word), kWordProbes, weight, text);
    }
    normalise(text);
    add_scaled(mean, text, 1);
    for (const Term& term : terms) {
      LearntWord* learnt = find_in(model, term.word);
      if (learnt != nullptr) add_scaled(learnt->vector, text, 1);
    }
  }
}

// Makes the word's vector of the sum of the texts around it.
void finish_word(const std::string& name, std::uint32_t texts, const Vector& mean,
                 LearntWord& word) {
  const auto with = static_cast<float>(word.texts);
  // What all texts have in common says nothing, nor does the word itself.
  add_scaled(word.vector, mean, -with / static_cast<float>(texts));
  Vector own{};
  add_own_vector(term_hash(name), kWordProbes, 1, own);
  add_scaled(word.vector, own, -dot_product(own, word.vector));
  normalise(word.vector);
  for (float& element : word.vector) element *= kContextShare * with / (with + kContextDoubt);
  add_scaled(word.vector, own, 1);
}

}  // namespace

Model learn(const std::vector<std::vector<Term>>& texts) {
  Model model;
  Vector mean{};
  count_words(texts, model);
  relate_words(texts, model, mean);
  for (auto& [name, word] : model.words) finish_word(name, model.texts, mean, word);
  return model;
}

Vector embed(const std::vector<Term>& terms, std::uint32_t texts, const FindWord& find) {
  Vector sum{};
  for (const Term& term : terms) {
    const LearntWord* learnt = find(term.word);
    const float weight = weight_of(term, texts, learnt);
    if (learnt != nullptr) {
      add_scaled(sum, learnt->vector, weight);
    } else {
      add_own_vector(term_hash(term.word), kWordProbes, weight, sum);
    }
    add_pieces(term.word, weight * kPieceShare, sum);
  }
  normalise(sum);
  return sum;
}

Vector embed(const std::vector<Term>& terms, const Model& model) {
  return embed(terms, model.texts, [&](const std::string& word) {
    const auto found = model.words.find(word);
    return found == model.words.end() ? nullptr : &found->second;
  });
}

}  // namespace kova::sample

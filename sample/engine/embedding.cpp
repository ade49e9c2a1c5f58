#include "engine/embedding.h"

#include <cmath>
#include <string>

namespace kova::sample {

namespace {

constexpr std::uint32_t kDocumentsToLearnFrom = 3;
constexpr int kWordProbes = 8;
constexpr int kPieceProbes = 2;
// The shares that gave the best ranking of Debian's package summaries.
constexpr float kContextShare = 0.6F;
constexpr float kContextDoubt = 3;  // so many texts halve the share
constexpr float kPieceShare = 0.35F;
constexpr float kLeastIdf = 0.1F;

void add_scaled(Vector& sum, const Vector& addend, float factor) {
  for (std::size_t i = 0; i < kDimension; ++i) sum[i] += factor * addend[i];
}

float dot_product(const Vector& a, const Vector& b) {
  float sum = 0;
  for (std::size_t i = 0; i < kDimension; ++i) sum += a[i] * b[i];
  return sum;
}

// SplitMix64 (Steele, Lea and Flood, "Fast Splittable Pseudorandom Number Generators", 2014).
std::uint64_t next_random(std::uint64_t& state) {
  state += 0x9E3779B97F4A7C15;
  std::uint64_t mixed = state;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return mixed ^ (mixed >> 31);
}

// Adds a term's own vector, which is about as long as `length`.
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

}  // namespace

void Embedding::count(const std::vector<Term>& terms) {
  ++documents_;
  for (const Term& term : terms) ++counts_[term.hash];
}

void Embedding::begin_relating() {
  for (const auto& [hash, documents] : counts_) {
    if (documents >= kDocumentsToLearnFrom) words_[hash].documents = documents;
  }
  counts_.clear();
}

float Embedding::weight_of(const Term& term) const {
  const auto known = words_.find(term.hash);
  const float with = known == words_.end() ? 0 : static_cast<float>(known->second.documents);
  const float idf = std::log((static_cast<float>(documents_) + 1) / (with + 1));
  return std::log1p(term.weight) * (idf + kLeastIdf);
}

void Embedding::relate(const std::vector<Term>& terms) {
  Vector text{};
  for (const Term& term : terms) add_own_vector(term.hash, kWordProbes, weight_of(term), text);
  normalise(text);
  add_scaled(mean_, text, 1);
  for (const Term& term : terms) {
    const auto known = words_.find(term.hash);
    if (known != words_.end()) add_scaled(known->second.vector, text, 1);
  }
}

void Embedding::end_relating() {
  for (auto& [hash, word] : words_) {
    const auto with = static_cast<float>(word.documents);
    // What all texts have in common says nothing, nor does the word itself.
    add_scaled(word.vector, mean_, -with / static_cast<float>(documents_));
    Vector own{};
    add_own_vector(hash, kWordProbes, 1, own);
    add_scaled(word.vector, own, -dot_product(own, word.vector));
    normalise(word.vector);
    for (float& element : word.vector) element *= kContextShare * with / (with + kContextDoubt);
    add_scaled(word.vector, own, 1);
  }
}

Vector Embedding::embed(const std::vector<Term>& terms) const {
  Vector sum{};
  for (const Term& term : terms) {
    const float weight = weight_of(term);
    const auto known = words_.find(term.hash);
    if (known != words_.end()) {
      add_scaled(sum, known->second.vector, weight);
    } else {
      add_own_vector(term.hash, kWordProbes, weight, sum);
    }
    add_pieces(term.word, weight * kPieceShare, sum);
  }
  normalise(sum);
  return sum;
}

}  // namespace kova::sample

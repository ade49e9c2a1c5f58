#include "engine/vector_index.h"

#include <algorithm>
#include <iterator>

namespace kova::sample {

namespace {

constexpr std::size_t kLanes = 16;
static_assert(kDimension % kLanes == 0);

// Sixteen sums side by side: the compiler may not reorder a single one.
float dot_product(const float* a, const float* b) {
  float sums[kLanes] = {};
  for (std::size_t i = 0; i < kDimension; i += kLanes) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) sums[lane] += a[i + lane] * b[i + lane];
  }
  float sum = 0;
  for (const float lane : sums) sum += lane;
  return sum;
}

bool is_better(const Hit& a, const Hit& b) {
  return a.score != b.score ? a.score > b.score : a.id < b.id;
}

}  // namespace

void VectorIndex::reserve(std::size_t count) {
  elements_.reserve(count * kDimension);
  ids_.reserve(count);
  places_.reserve(count);
}

void VectorIndex::put(std::int64_t id, const Vector& vector) {
  const auto [entry, added] = places_.try_emplace(id, ids_.size());
  if (added) {
    ids_.push_back(id);
    elements_.insert(elements_.end(), vector.begin(), vector.end());
  } else {
    std::copy(vector.begin(), vector.end(), elements_.data() + entry->second * kDimension);
  }
}

// The last vector moves into the gap.
void VectorIndex::remove(std::int64_t id) {
  const auto entry = places_.find(id);
  if (entry == places_.end()) return;
  const std::size_t place = entry->second;
  places_.erase(entry);
  if (ids_.back() != id) {
    ids_[place] = ids_.back();
    places_[ids_[place]] = place;
    std::copy_n(elements_.end() - kDimension, kDimension, elements_.data() + place * kDimension);
  }
  ids_.pop_back();
  elements_.resize(elements_.size() - kDimension);
}

// A heap of the best so far, the worst of them on top.
std::vector<Hit> VectorIndex::nearest(const Vector& query, std::size_t top) const {
  std::vector<Hit> best;
  if (top == 0) return best;
  best.reserve(top + 1);
  for (std::size_t place = 0; place < ids_.size(); ++place) {
    const float score = dot_product(query.data(), elements_.data() + place * kDimension);
    const Hit hit{.id = ids_[place], .score = score};
    if (best.size() == top && !is_better(hit, best.front())) continue;
    best.push_back(hit);
    std::push_heap(best.begin(), best.end(), is_better);
    if (best.size() <= top) continue;
    std::pop_heap(best.begin(), best.end(), is_better);
    best.pop_back();
  }
  std::sort_heap(best.begin(), best.end(), is_better);
  return best;
}

}  // namespace kova::sample

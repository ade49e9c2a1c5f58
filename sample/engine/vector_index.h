// The vectors of a collection in memory, for exact search.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "engine/vector.h"

namespace kova::sample {

struct Hit {
  std::int64_t id;
  float score;  ///< cosine similarity, -1 to 1
};

/// Vectors of length 1 by their id, one behind the other in memory.
class VectorIndex {
 public:
  void reserve(std::size_t count);
  /// Adds a vector or replaces the one of this id.
  void put(std::int64_t id, const Vector& vector);
  void remove(std::int64_t id);
  [[nodiscard]] std::size_t size() const { return ids_.size(); }

  /// The `top` vectors most similar to the query, the best first; of equals the lower id first.
  /// The query is of length 1. Compares with every vector.
  [[nodiscard]] std::vector<Hit> nearest(const Vector& query, std::size_t top) const;

 private:
  std::vector<float> elements_;
  std::vector<std::int64_t> ids_;
  std::unordered_map<std::int64_t, std::size_t> places_;
};

}  // namespace kova::sample

// Percentiles of durations, in bounded memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace kova::admin {

/// Counts durations by value. Up to kDenseLimit milliseconds (17 minutes) every value has a counter
/// of its own, above it every value that occurs, so that percentiles are exact; only when more than
/// kSparseLimit different values lie above, those are rounded up to ten significant bits (0.2 % at
/// most).
class Durations {
 public:
  static constexpr std::uint64_t kDenseLimit = (std::uint64_t{1} << 20U) - 1;
  static constexpr std::size_t kSparseLimit = 65536;

  void add(std::uint64_t duration_ms);

  /// The percentile by nearest rank: the smallest duration that at least so many parts of a
  /// thousand do not exceed. Nothing when nothing was added.
  [[nodiscard]] std::optional<std::uint64_t> percentile(unsigned per_mille) const;
  [[nodiscard]] std::optional<std::uint64_t> max() const;

 private:
  void add_sparse(std::uint64_t duration_ms);

  std::vector<std::uint64_t> dense_;
  std::map<std::uint64_t, std::uint64_t> sparse_;
  bool is_rounded_ = false;
  std::uint64_t count_ = 0;
  std::uint64_t max_ = 0;
};

}  // namespace kova::admin

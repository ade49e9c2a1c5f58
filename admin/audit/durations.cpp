#include "admin/audit/durations.h"

#include <algorithm>
#include <bit>

namespace kova::admin {

namespace {

constexpr int kSignificantBits = 10;
constexpr std::uint64_t kParts = 1000;

/// The largest value with the same upper bits.
std::uint64_t rounded(std::uint64_t value) {
  const int dropped = static_cast<int>(std::bit_width(value)) - kSignificantBits;
  return dropped > 0 ? value | ((std::uint64_t{1} << dropped) - 1) : value;
}

}  // namespace

void Durations::add(std::uint64_t duration_ms) {
  ++count_;
  max_ = std::max(max_, duration_ms);
  if (duration_ms > kDenseLimit) {
    add_sparse(duration_ms);
    return;
  }
  // Grows by doubling: most logs need a few pages.
  if (duration_ms >= dense_.size()) dense_.resize(std::bit_ceil(duration_ms + 1));
  ++dense_[static_cast<std::size_t>(duration_ms)];
}

void Durations::add_sparse(std::uint64_t duration_ms) {
  ++sparse_[is_rounded_ ? rounded(duration_ms) : duration_ms];
  if (is_rounded_ || sparse_.size() <= kSparseLimit) return;
  is_rounded_ = true;
  std::map<std::uint64_t, std::uint64_t> exact;
  exact.swap(sparse_);
  for (const auto& [value, count] : exact) sparse_[rounded(value)] += count;
}

// The rank counts from 1. Divided first: a product could exceed 64 bits.
std::optional<std::uint64_t> Durations::percentile(unsigned per_mille) const {
  if (count_ == 0) return std::nullopt;
  const std::uint64_t rank =
      count_ / kParts * per_mille + (count_ % kParts * per_mille + kParts - 1) / kParts;
  std::uint64_t seen = 0;
  for (std::size_t value = 0; value < dense_.size(); ++value) {
    seen += dense_[value];
    if (seen >= std::max<std::uint64_t>(rank, 1)) return value;
  }
  for (const auto& [value, count] : sparse_) {
    seen += count;
    if (seen >= rank) return std::min(value, max_);
  }
  return max_;
}

std::optional<std::uint64_t> Durations::max() const {
  return count_ > 0 ? std::optional(max_) : std::nullopt;
}

}  // namespace kova::admin

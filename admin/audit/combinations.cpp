#include "admin/audit/combinations.h"

namespace kova::admin {

namespace {

constexpr unsigned kSlotBits = 18;
constexpr std::size_t kCombinationSlots = std::size_t{1} << kSlotBits;
static_assert(kCombinationSlots == 4 * Combinations::kLimit);

/// Multiplicative hashing (Knuth, The Art of Computer Programming, vol. 3, 6.4): the upper bits.
std::size_t slot_of(std::uint64_t key) {
  return static_cast<std::size_t>((key * 0x9E3779B97F4A7C15U) >> (64U - kSlotBits));
}

}  // namespace

Combinations::Combinations() : slots_(kCombinationSlots) {}

void Combinations::add(std::uint64_t key, UnixMs time) {
  span_of(key).add(time);
}

Span& Combinations::span_of(std::uint64_t key) {
  std::size_t slot = slot_of(key);
  for (; slots_[slot] != 0; slot = (slot + 1) % kCombinationSlots) {
    Entry& entry = entries_[slots_[slot] - 1];
    if (entry.key == key) return entry.span;
  }
  if (entries_.size() == kLimit) return others_;
  entries_.push_back({.key = key, .span = {}});
  slots_[slot] = static_cast<std::uint32_t>(entries_.size());
  return entries_.back().span;
}

}  // namespace kova::admin

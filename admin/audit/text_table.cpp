#include "admin/audit/text_table.h"

#include <functional>

namespace kova::admin {

namespace {

/// A power of two; at most a quarter is taken.
constexpr std::size_t kTextSlots = 4 * TextTable::kValueLimit;

}  // namespace

TextTable::TextTable() : slots_(kTextSlots) {}

std::uint32_t TextTable::look_up(std::string_view value) {
  if (value.size() > kTextLimit || value == kOther) return kOtherId;
  std::size_t slot = std::hash<std::string_view>()(value) % kTextSlots;
  for (; slots_[slot] != 0; slot = (slot + 1) % kTextSlots) {
    const std::uint32_t id = slots_[slot] - 1U;
    if (texts_[id] == value) return last_ = id;
  }
  if (texts_.size() == kValueLimit) return kOtherId;
  texts_.emplace_back(value);
  slots_[slot] = static_cast<std::uint16_t>(texts_.size());
  return last_ = static_cast<std::uint32_t>(texts_.size() - 1);
}

}  // namespace kova::admin

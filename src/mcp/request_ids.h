// The ids that this process has seen. An id is used up for good.
#pragma once

#include <cstdint>
#include <string_view>

#include "json/reply.h"

namespace kova {

/// 256 texts of at most 95 characters, in the order of arrival; texts only, so the string "1" and
/// the number 1 are the same id.
class RequestIdRegistry {
 public:
  static constexpr std::uint32_t kCapacity = 256;

  /// Stores a new id. False for one that is there and for any after the 256th.
  [[nodiscard]] bool add(std::string_view id);
  [[nodiscard]] std::uint32_t count() const { return count_; }

 private:
  char slots_[kCapacity][kIdCapacity] = {};
  std::uint32_t count_ = 0;
};

}  // namespace kova

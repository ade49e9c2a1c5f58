// The distinct values of one member, numbered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kova::admin {

/// Stands for every value that a table has no room for.
inline constexpr std::string_view kOther = "(other)";

/// Keeps the first values that it meets; the others, and one that is spelled so, are kOther.
class TextTable {
 public:
  static constexpr std::size_t kValueLimit = 4096;
  /// Bytes; a longer value counts as kOther. The server writes at most 159.
  static constexpr std::size_t kTextLimit = 1024;
  /// The number of kOther.
  static constexpr std::uint32_t kOtherId = kValueLimit;

  TextTable();

  /// The number of a value, which is new or not.
  [[nodiscard]] std::uint32_t id_of(std::string_view value) {
    // Most records repeat the value of the one before.
    return last_ < texts_.size() && texts_[last_] == value ? last_ : look_up(value);
  }
  [[nodiscard]] std::string_view text(std::uint32_t id) const {
    return id < texts_.size() ? std::string_view(texts_[id]) : kOther;
  }
  /// Of the values that are kept.
  [[nodiscard]] std::size_t size() const { return texts_.size(); }

 private:
  [[nodiscard]] std::uint32_t look_up(std::string_view value);

  std::vector<std::string> texts_;
  /// The numbers plus one, by hash with linear probing; 0 is an empty slot.
  std::vector<std::uint16_t> slots_;
  std::uint32_t last_ = kOtherId;
};

}  // namespace kova::admin

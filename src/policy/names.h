// Safe names, and lists of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova {

/// Bytes of a safe name, its terminator included.
inline constexpr std::size_t kSafeNameCapacity = 64;

/// At most 64 safe names in file order, no two equal ignoring case.
struct NameList {
  static constexpr std::uint32_t kCapacity = 64;
  char names[kCapacity][kSafeNameCapacity];
  std::uint32_t count;
};

/// 1 to 63 ASCII letters, digits or "_": the only form in which a name enters a statement.
[[nodiscard]] bool policy_safe_name(std::string_view text);

/// Whether the list holds the name, ignoring case.
[[nodiscard]] bool policy_list_contains(const NameList& list, std::string_view name);

}  // namespace kova

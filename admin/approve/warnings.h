// What a careful reader of a write would look at.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "policy/write_classifier.h"

namespace kova::admin {

/// Rows of kScreenColumns columns beyond which a statement is long.
inline constexpr std::size_t kScreenRows = 24;
inline constexpr std::size_t kScreenColumns = 80;

struct Warning {
  const char* name;     ///< stable, for machines
  const char* meaning;  ///< for people
  std::size_t index;    ///< of its first place in the canonical statement
  std::size_t places;   ///< how many places there are
};

/// The warnings of an accepted write, each name at most once, in a fixed order. They never say
/// that a statement is harmless: they read it without the engine's grammar.
[[nodiscard]] std::vector<Warning> find_warnings(const ClassifiedWrite& write);

}  // namespace kova::admin

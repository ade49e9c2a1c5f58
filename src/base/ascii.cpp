#include "base/ascii.h"

#include <cstddef>

namespace kova {

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (to_lower(a[i]) != to_lower(b[i])) return false;
  }
  return true;
}

bool means_yes(std::string_view text) {
  return text == "1" || equal_ignoring_case(text, "true") || equal_ignoring_case(text, "yes") ||
         equal_ignoring_case(text, "on");
}

}  // namespace kova

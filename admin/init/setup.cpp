#include "admin/init/setup.h"

#include <algorithm>

namespace kova::admin {

Names split_names(std::string_view text) {
  Names names;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(','), text.size());
    const std::string_view part = text.substr(0, end);
    const std::size_t first = part.find_first_not_of(' ');
    if (first != std::string_view::npos) {
      names.emplace_back(part.substr(first, part.find_last_not_of(' ') + 1 - first));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return names;
}

}  // namespace kova::admin

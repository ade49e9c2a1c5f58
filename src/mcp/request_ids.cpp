#include "mcp/request_ids.h"

#include <algorithm>

#include "base/text.h"

namespace kova {

bool RequestIdRegistry::add(std::string_view id) {
  if (count_ == kCapacity) return false;
  const bool known =
      std::any_of(slots_, slots_ + count_, [&](const char* slot) { return id == slot; });
  return !known && TextOut(slots_[count_++]).copy(id);
}

}  // namespace kova

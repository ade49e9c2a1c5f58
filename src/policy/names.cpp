#include "policy/names.h"

#include <algorithm>

#include "base/ascii.h"

namespace kova {

bool policy_safe_name(std::string_view text) {
  return !text.empty() && text.size() < kSafeNameCapacity &&
         std::all_of(text.begin(), text.end(), is_word_byte);
}

bool policy_list_contains(const NameList& list, std::string_view name) {
  return std::any_of(list.names, list.names + list.count,
                     [&](const char* entry) { return equal_ignoring_case(entry, name); });
}

}  // namespace kova

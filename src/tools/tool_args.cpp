#include "tools/tool_args.h"

#include <algorithm>

#include "policy/predicates.h"

namespace kova {

bool check_allowed_members(const JsonDoc& doc, int object,
                           std::initializer_list<std::string_view> allowed) {
  if (!doc.is(object, JsonType::kObject)) return false;
  int key = object + 1;
  while (key < doc.count && doc[key].start < doc[object].end) {
    char name[kSafeNameCapacity];
    const int value = key + 1;
    if (doc[key].parent != object || !json_get_string(doc, key, name) ||
        std::find(allowed.begin(), allowed.end(), name) == allowed.end() || value >= doc.count ||
        doc[value].parent != object) {
      return false;
    }
    key = json_skip(doc, value);
    if (key < 0) return false;
  }
  return true;
}

bool get_string_member(const JsonDoc& doc, int object, std::string_view key, TextOut out) {
  return json_get_string(doc, json_find(doc, object, key), out);
}

bool get_identifier_member(const JsonDoc& doc, int object, std::string_view key, TextOut out) {
  return get_string_member(doc, object, key, out) && policy_safe_name(out.data());
}

bool get_bounded_member(const JsonDoc& doc, int object, std::string_view key, std::uint32_t low,
                        std::uint32_t high, std::uint32_t& value) {
  return json_get_unsigned(doc, json_find(doc, object, key), value) && value >= low &&
         value <= high;
}

}  // namespace kova

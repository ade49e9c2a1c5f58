#include "tools/tool_args.h"

#include <algorithm>

#include "policy/names.h"

namespace kova {

bool check_allowed_members(const JsonDoc& doc, int object,
                           std::initializer_list<std::string_view> allowed) {
  JsonMembers members(doc, object);
  for (const JsonMember member : members) {
    char name[kSafeNameCapacity];
    if (!json_get_string(doc, member.key, name) ||
        std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
      return false;
    }
  }
  return members.well_formed();
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

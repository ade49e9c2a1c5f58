#include "tools/tool_args.h"

#include <algorithm>

#include "policy/names.h"

namespace kova {

bool check_allowed_members(const JsonDoc& doc, int object,
                           std::initializer_list<std::string_view> allowed, int* blamed) {
  if (blamed != nullptr) *blamed = object;
  JsonMembers members(doc, object);
  for (const JsonMember member : members) {
    char name[kSafeNameCapacity];
    if (!json_get_string(doc, member.key, name) ||
        std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
      if (blamed != nullptr) *blamed = member.key;
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

bool check_allowed_members(const ToolCall& call, std::initializer_list<std::string_view> allowed) {
  int blamed = -1;
  return check_allowed_members(call.doc, call.arguments, allowed, &blamed) || call.blame(blamed);
}

bool get_string_member(const ToolCall& call, std::string_view key, TextOut out) {
  return get_string_member(call.doc, call.arguments, key, out) || call.blame_member(key);
}

bool get_identifier_member(const ToolCall& call, std::string_view key, TextOut out) {
  return get_identifier_member(call.doc, call.arguments, key, out) || call.blame_member(key);
}

bool get_bounded_member(const ToolCall& call, std::string_view key, std::uint32_t low,
                        std::uint32_t high, std::uint32_t& value) {
  return get_bounded_member(call.doc, call.arguments, key, low, high, value) ||
         call.blame_member(key);
}

}  // namespace kova

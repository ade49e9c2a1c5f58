// Reading a tool's arguments.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "base/text.h"
#include "json/json.h"
#include "tools/tool.h"

namespace kova {

/// Whether the token is an object each of whose keys, decoded, has at most 63 bytes and is one of
/// the allowed names. Nested objects are not looked at. False sets `blamed` to the key that is
/// refused, or to a token that is no object.
[[nodiscard]] bool check_allowed_members(const JsonDoc& doc, int object,
                                         std::initializer_list<std::string_view> allowed,
                                         int* blamed = nullptr);

/// The member's decoded text; false when it is absent, no string or does not fit.
[[nodiscard]] bool get_string_member(const JsonDoc& doc, int object, std::string_view key,
                                     TextOut out);

/// The member's text when it is a safe name; false otherwise. `out` holds at least 64 bytes.
[[nodiscard]] bool get_identifier_member(const JsonDoc& doc, int object, std::string_view key,
                                         TextOut out);

/// The member as a number within the bounds; false when it is absent.
[[nodiscard]] bool get_bounded_member(const JsonDoc& doc, int object, std::string_view key,
                                      std::uint32_t low, std::uint32_t high, std::uint32_t& value);

// The same of a call's arguments; a trace shows what is refused.
[[nodiscard]] bool check_allowed_members(const ToolCall& call,
                                         std::initializer_list<std::string_view> allowed);
[[nodiscard]] bool get_string_member(const ToolCall& call, std::string_view key, TextOut out);
[[nodiscard]] bool get_identifier_member(const ToolCall& call, std::string_view key, TextOut out);
[[nodiscard]] bool get_bounded_member(const ToolCall& call, std::string_view key, std::uint32_t low,
                                      std::uint32_t high, std::uint32_t& value);

}  // namespace kova

// JSON that kova-admin writes.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kova::admin {

/// Members keep their order.
using Json = nlohmann::ordered_json;

/// One line of ASCII without its end; what is no UTF-8 becomes U+FFFD.
[[nodiscard]] std::string json_line(const Json& value);

/// Appends a text as json_line writes it, in its quotation marks.
void append_json_text(std::string& line, std::string_view text);

[[nodiscard]] Json text_or_null(const std::optional<std::string>& text);

/// Prints one object as a line on standard output.
void print_json(const Json& value);

}  // namespace kova::admin

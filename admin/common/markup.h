// Text inside HTML and XML.
#pragma once

#include <string>
#include <string_view>

namespace kova::admin {

/// A text as the content of an element or of a quoted attribute: the five characters of markup are
/// escaped, all others stay.
[[nodiscard]] std::string escape_markup(std::string_view text);

}  // namespace kova::admin

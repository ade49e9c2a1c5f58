// Pieces of an HTML page.
#pragma once

#include <string>
#include <string_view>

namespace kova::admin {

/// A text as the content of an element or of a quoted attribute. Unusual characters are shown by
/// their escapes, and a text of more than 200 bytes is cut, with a note.
[[nodiscard]] std::string html_text(std::string_view text);

/// The value of a `style-src` or `script-src` that allows exactly this inline text: 'sha256-...'
/// (Content Security Policy Level 3, 6.7.3). Throws Refusal when there is no digest.
[[nodiscard]] std::string content_hash(std::string_view text);

}  // namespace kova::admin

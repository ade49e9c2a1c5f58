// Taking a statement of the dialect apart.
#pragma once

#include <string>
#include <string_view>

namespace kova::sample {

[[nodiscard]] std::string_view trimmed(std::string_view text);

/// Without the one ";" that may end a statement.
[[nodiscard]] std::string_view unterminated(std::string_view statement);

/// Takes the word that `text` begins with, and the white space before it; empty when there is none.
[[nodiscard]] std::string_view take_word(std::string_view& text);

/// Takes one word that has to be all that is left.
[[nodiscard]] bool take_last_word(std::string_view& text, std::string_view& word);

/// Takes the word, in any case, that has to come next.
[[nodiscard]] bool take_keyword(std::string_view& text, std::string_view keyword);

/// Takes a text in single quotes; one within it is written twice.
[[nodiscard]] bool take_literal(std::string_view& text, std::string& value);

}  // namespace kova::sample

// Where the statement comes from that is to be approved.
#pragma once

#include <string>
#include <string_view>

namespace kova::admin {

/// Takes the statement out of a text. One that begins with "{" is a client's message, either
/// {"sql": ...} or a tools/call request; anything else is the statement itself. Throws Refusal for
/// a message without a statement, for a NUL, and for what is no UTF-8: the server's protocol
/// carries nothing else.
[[nodiscard]] std::string statement_of(std::string_view text);

/// The same from a file, or from standard input for "-".
[[nodiscard]] std::string read_statement(const std::string& path);

}  // namespace kova::admin

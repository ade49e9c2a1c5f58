// What kova-admin prints on its standard streams.
#pragma once

#include <string_view>

namespace kova::admin {

/// Prints text as it is; whoever composes it has escaped what is untrusted. Throws Refusal when
/// standard output does not take all of it.
void print(std::string_view text);

/// Prints one line on standard error, escaped, after the program's name.
void print_error(std::string_view message);

/// Colours of a terminal. A colour never carries a meaning alone.
enum class Colour { kNone, kGreen, kYellow, kRed, kBold };

/// Whether standard output is to be coloured: a terminal, and NO_COLOR is not set to anything.
[[nodiscard]] bool stdout_has_colour();

/// Whether the person wants colours at all: NO_COLOR is not set to anything and TERM is not "dumb".
[[nodiscard]] bool colour_is_wanted();

/// What switches a colour on; kNone switches all off.
[[nodiscard]] std::string_view colour_code(Colour colour);

}  // namespace kova::admin

// The two questions to an operator on the controlling terminal.
#pragma once

#include <string>

#include "platform/terminal.h"

namespace kova::admin {

/// Writes text to the terminal. Throws Refusal when it has gone.
void show(Terminal& terminal, std::string_view text);

/// Asks for the reason. Throws Refusal when it is empty, no UTF-8 or does not come.
[[nodiscard]] std::string ask_reason(Terminal& terminal);

/// Asks for the decision; true for exactly "yes". Throws Refusal when none comes.
[[nodiscard]] bool ask_confirmation(Terminal& terminal);

}  // namespace kova::admin

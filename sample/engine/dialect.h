// The engine's statements.
#pragma once

#include <string>
#include <string_view>

#include "engine/session.h"

namespace kova::sample {

/// Runs one statement of the dialect: finds its row of the statement table by its first word.
[[nodiscard]] Outcome run_statement(Session& session, std::string_view statement);

/// The statement as a log may show it: without a password, on one line, cut.
[[nodiscard]] std::string loggable(std::string_view statement);

}  // namespace kova::sample

// The engine's statements.
#pragma once

#include <string>
#include <string_view>

#include "engine/session.h"

namespace kova::sample {

/// Runs one statement of the dialect, which its first word chooses. Throws the failure that the
/// client is told.
[[nodiscard]] Outcome run_statement(Session& session, std::string_view statement);

/// The statement as a log may show it: without a password, on one line, cut.
[[nodiscard]] std::string loggable(std::string_view statement);

}  // namespace kova::sample

// The statements of the AI collections: SEARCH AI and SHOW AI.
#pragma once

#include <string_view>

#include "engine/session.h"

namespace kova::sample {

/// Both are passed what follows the first word.
[[nodiscard]] Outcome run_search(Session& session, std::string_view rest);
[[nodiscard]] Outcome run_show(Session& session, std::string_view rest);

}  // namespace kova::sample

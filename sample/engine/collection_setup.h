// What a database with collections needs before anything else.
#pragma once

#include "engine/store.h"

namespace kova::sample {

/// Makes the engine's tables, and for each collection that is defined and has no build its
/// triggers, its view and a queued build; none where the database defines no collection. A
/// definition that is wrong becomes a failed build.
[[nodiscard]] bool set_up_collections(Store& store);

}  // namespace kova::sample

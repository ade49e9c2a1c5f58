// The durable jobs that build collections and keep their vectors in step with the source rows.
//
// AI_JOBS holds a BUILD for each collection and an INSERT, UPDATE or DELETE for each change of a
// source row, queued by triggers in the transaction that changes it. Jobs run in their order, each
// together with what it changes in one transaction, so that a job is done once or not at all.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "engine/collections.h"
#include "engine/store.h"

namespace kova::sample {

/// Is told how far the building of a collection is.
using BuildProgress = std::function<void(std::string_view collection, int percent)>;

/// Makes the engine's tables, and for each collection that is defined and has no build its
/// triggers, its view and a queued build; none where the database defines no collection. A
/// definition that is wrong becomes a failed build.
[[nodiscard]] bool set_up_collections(Store& store);

/// Sets collections up and runs jobs until none is queued. A job that fails for good is kept with
/// its words. False when something else is in the way, with words in the store's `error()`; what is
/// left stays queued.
[[nodiscard]] bool run_jobs(Store& store, Collections& collections, const BuildProgress& progress);

/// Gives the builds that have failed another try.
[[nodiscard]] bool retry_failed_builds(Store& store);

}  // namespace kova::sample

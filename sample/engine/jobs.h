// The durable jobs that build collections and keep their vectors in step with the source rows.
//
// AI_JOBS holds a BUILD for each collection and an INSERT, UPDATE or DELETE for each change of a
// source row, queued by triggers in the transaction that changes it. Jobs run in their order, each
// together with what it changes in one transaction, so that a job is done once or not at all.
#pragma once

#include "engine/collection_build.h"
#include "engine/collections.h"
#include "engine/store.h"

namespace kova::sample {

/// Sets collections up and runs jobs until none is queued. A job that fails for good is kept with
/// its words. False when something else is in the way, with words in the store's `error()`; what is
/// left stays queued.
[[nodiscard]] bool run_jobs(Store& store, Collections& collections, const BuildProgress& progress);

/// Gives the builds that have failed another try.
[[nodiscard]] bool retry_failed_builds(Store& store);

}  // namespace kova::sample

// The jobs that build collections and keep their vectors in step with the source rows.
//
// The table AI_JOBS holds a BUILD for each collection and an INSERT, UPDATE or DELETE for each
// change of a source row, queued by triggers in the transaction of the change. Jobs run on the
// connection that needs their results, all of a collection in one transaction: either they are done
// or they stay queued.
#pragma once

#include <functional>
#include <string_view>

#include "engine/store.h"

namespace kova::sample {

/// Called for each row that a build embeds, with the percentage that is done.
using BuildProgress = std::function<void(std::string_view collection, int percent)>;

/// Whether builds that have failed before are tried again.
enum class Retry : bool { kNothing, kFailedBuilds };

/// Queues a build for each new definition and runs all queued jobs; does nothing where the database
/// defines no collection. A job that cannot be done becomes FAILED, with its message. Throws a
/// PassingFailure when the jobs cannot run now; they stay queued.
void bring_up_to_date(Store& store, Retry retry, const BuildProgress& progress = nullptr);

/// The same; false when the jobs cannot run now.
[[nodiscard]] bool try_to_bring_up_to_date(Store& store, Retry retry = Retry::kNothing);

}  // namespace kova::sample

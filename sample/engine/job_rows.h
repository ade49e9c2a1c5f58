// What builds and row jobs write into the engine's own tables.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "engine/store.h"

namespace kova::sample {

/// Runs a changing statement whose parameters are texts.
[[nodiscard]] bool execute(Store& store, const char* sql,
                           std::initializer_list<std::string_view> texts);

/// Prepares the statement that adds or replaces a vector of the collection, whose name is bound. To
/// be bound are the source key (2), the job's number as the revision (3) and the vector's bytes
/// (4).
[[nodiscard]] bool prepare_put_vector(Store& store, std::string_view collection, Query& put);

/// Marks a job as done.
[[nodiscard]] bool finish_job(Store& store, std::int64_t job);

}  // namespace kova::sample

// Blocks of a result's rows.
#pragma once

#include <string>

#include "engine/store.h"
#include "wire/wire.h"

namespace kova::sample {

/// Appends the next block of rows to a frame: what README.md of the wire format calls rows. Closes
/// a query that has come to its end or failed, or gives the end of a result when it is not open.
/// False when the statement failed; `error` has its words and the block says the same.
bool append_rows(Query& query, wire::FrameWriter& frame, std::string& error);

}  // namespace kova::sample

// The functions that the engine adds to SQL.
#pragma once

#include <sqlite3.h>

namespace kova::sample {

/// Adds vector_text(blob): a vector as a client sees it, null for what is no vector.
[[nodiscard]] bool add_sql_functions(sqlite3* database);

}  // namespace kova::sample

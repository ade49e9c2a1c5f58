#include <string>

#include "engine/sql_functions.h"

#include "engine/vector.h"

namespace kova::sample {

namespace {

void run_vector_text(sqlite3_context* context, int /*count*/, sqlite3_value** arguments) {
  const void* bytes = sqlite3_value_blob(arguments[0]);
  const auto size = static_cast<std::size_t>(sqlite3_value_bytes(arguments[0]));
  Vector vector;
  if (bytes == nullptr || !read_vector({static_cast<const char*>(bytes), size}, vector)) return;
  const std::string text = vector_text(vector);
  sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

}  // namespace

bool add_sql_functions(sqlite3* database) {
  // Innocuous: views of a database that is not trusted may call it.
  constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  return sqlite3_create_function_v2(database, "vector_text", 1, kFlags, nullptr, run_vector_text,
                                    nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace kova::sample

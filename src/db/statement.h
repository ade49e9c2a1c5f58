// Running one statement: bounds before, one pass over the rows after.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "db/session.h"

namespace kova {

inline constexpr std::size_t kStatementLimit = 32768;
inline constexpr std::uint32_t kMaxRowsLimit = 256;
inline constexpr std::size_t kStatementErrorCapacity = 256;

/// The result of one statement: its JSON text, or the message of its failure.
struct StatementResult {
  StatementResult() = default;
  ~StatementResult() { release(); }
  StatementResult(const StatementResult&) = delete;
  StatementResult& operator=(const StatementResult&) = delete;

  /// Frees the text and zeroes the record.
  void release();
  /// Becomes a success with this text of `malloc`, which it frees.
  void adopt(char* json, std::size_t length, std::uint32_t rows);

  char* text = nullptr;  ///< NUL-terminated, on the C heap; null after a failure
  std::uint32_t rowCount = 0;
  std::uint32_t textLength = 0;
  bool truncated = false;
  char error[kStatementErrorCapacity] = {};
};

/// Runs one statement of 1 to 32,768 bytes and encodes at most `max_rows` (1 to 256) rows.
/// `sql` is NUL-terminated. False leaves the message in `result.error`.
[[nodiscard]] bool execute_statement(DbSession& session, const char* sql, std::uint32_t max_rows,
                                     StatementResult& result);

}  // namespace kova

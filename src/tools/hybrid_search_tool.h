// kova_hybrid_search: a text search whose hits are joined to the rows of a source table.
#pragma once

#include <cstdint>

#include "base/text.h"
#include "db/session.h"
#include "db/statement.h"
#include "json/json.h"
#include "tools/tool.h"

namespace kova {

inline constexpr std::int32_t kHybridColumnLimit = 16;

/// Whether the policy lets the collection be searched and the source table, its key and the columns
/// be read.
[[nodiscard]] bool check_hybrid_search(const ToolCall& call, ToolContext& context,
                                       ToolAnswer& answer);
[[nodiscard]] bool hybrid_search_tool(const ToolCall& call, ToolContext& context,
                                      ToolAnswer& answer);

/// What a hybrid search joins: the hits in a temporary table to the rows of a source table.
struct HybridJoin {
  const char* temporary;
  const char* source_table;
  const char* key_field;
};

/// Writes the SELECT of a hybrid search. False leaves the message of what is wrong with the
/// columns.
[[nodiscard]] bool compose_hybrid_select(const JsonDoc& doc, int columns, const HybridJoin& join,
                                         TextOut sql, TextOut message);

/// Three statements of which the second gives the result. When the search fails, its failure is the
/// result and nothing else runs; otherwise the drop always runs, and its own failure is ignored.
[[nodiscard]] bool run_hybrid_statements(DbSession& session, const char* search, const char* select,
                                         const char* drop, std::uint32_t top,
                                         StatementResult& result);

}  // namespace kova

// kova_text_search, kova_vector_search and kova_hybrid_search: the engine's AI statements, composed
// from safe names, strict numbers and quoted literals.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/text.h"
#include "db/statement.h"
#include "tools/tool_call.h"

namespace kova {

inline constexpr std::size_t kAiStatementCapacity = 32768;
inline constexpr std::size_t kVectorStatementCapacity = 65536;
inline constexpr std::int32_t kMostVectorElements = 4096;
inline constexpr std::int32_t kMostHybridColumns = 16;

void text_search_tool(const ToolCall& call, ToolContext& context);
void vector_search_tool(const ToolCall& call, ToolContext& context);
void hybrid_search_tool(const ToolCall& call, ToolContext& context);

/// Writes the text as a SQL literal, the only way in which a client's text enters a statement.
/// False for a control byte other than TAB, LF and CR, and for a literal that does not fit.
[[nodiscard]] bool quote_sql_text(std::string_view text, TextOut literal);

/// Writes the statement of a vector search. Answers null, or the message of what is wrong with the
/// array's elements or their length.
[[nodiscard]] const char* compose_vector_search(const JsonDoc& doc, int vector,
                                                const char* collection, std::uint32_t top,
                                                TextOut sql);

/// What a hybrid search joins: the hits in a temporary table to the rows of a source table.
struct HybridJoin {
  const char* temporary;
  const char* source_table;
  const char* key_field;
};

/// Writes the SELECT of a hybrid search. Answers null, or the message of what is wrong with the
/// columns.
[[nodiscard]] const char* compose_hybrid_select(const JsonDoc& doc, int columns,
                                                const HybridJoin& join, TextOut sql);

}  // namespace kova

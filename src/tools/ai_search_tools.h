// kova_text_search and kova_vector_search: what is near a text or a vector in an AI collection.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/text.h"
#include "json/json.h"
#include "tools/tool.h"

namespace kova {

inline constexpr std::size_t kVectorStatementCapacity = 65536;
inline constexpr std::int32_t kVectorElementLimit = 4096;

[[nodiscard]] bool text_search_tool(const ToolCall& call, ToolContext& context, ToolAnswer& answer);
[[nodiscard]] bool vector_search_tool(const ToolCall& call, ToolContext& context,
                                      ToolAnswer& answer);

/// Writes the statement of a vector search from the array's elements. False leaves the message of
/// the first one that is no number, and sets `blamed` to it, or that the statement's length is
/// exceeded.
[[nodiscard]] bool compose_vector_search(const JsonDoc& doc, int vector, const char* collection,
                                         std::uint32_t top, TextOut sql, TextOut message,
                                         int* blamed = nullptr);

}  // namespace kova

// What the tools over AI collections share: the policy's question, their arguments, and the quoting
// of a client's text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/text.h"
#include "json/json.h"
#include "policy/names.h"
#include "tools/tool.h"

namespace kova {

// Capacities with their terminators.
inline constexpr std::size_t kAiStatementCapacity = 32768;
/// Bytes of a search's text.
inline constexpr std::size_t kSearchTextLimit = 8192;
/// A search's text is decoded into this many bytes, then its length is checked.
inline constexpr std::size_t kSearchTextCapacity = 16401;

/// What every search takes.
struct AiSearch {
  char collection[kSafeNameCapacity];
  std::uint32_t top;
};

/// Whether the policy lets the call's collection be searched.
[[nodiscard]] bool check_collection(const ToolCall& call, ToolContext& context, ToolAnswer& answer);

/// Reads `collection`, a safe name.
[[nodiscard]] bool read_collection(const ToolCall& call, AiSearch& search);
/// Reads `top`, 1 to 256.
[[nodiscard]] bool read_top(const ToolCall& call, AiSearch& search);
/// Reads `text`, 1 to 8,192 bytes.
[[nodiscard]] bool read_search_text(const ToolCall& call, char (&text)[kSearchTextCapacity]);

/// Whether the token, a member of the call's arguments, is an array of 1 to `limit` elements.
[[nodiscard]] bool has_elements(const ToolCall& call, int array, std::int32_t limit);

/// Writes the text as a SQL literal, the only way in which a client's text enters a statement.
/// False for a control byte other than TAB, LF and CR, and for a literal that does not fit.
[[nodiscard]] bool quote_sql_text(std::string_view text, TextOut literal);

}  // namespace kova

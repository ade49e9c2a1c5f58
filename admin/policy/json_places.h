// Places in JSON text, and the text of a call.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kova::admin {

/// The index in a JSON string's source text of what decodes to the byte at `offset`.
[[nodiscard]] std::size_t source_offset(std::string_view source, std::size_t offset);

/// The other way round: how many bytes the source text before `index` decodes to.
[[nodiscard]] std::size_t decoded_offset(std::string_view source, std::size_t index);

/// The index in a JSON string's source text of the first escape that stands for no character (a
/// lone surrogate), or npos.
[[nodiscard]] std::size_t malformed_escape(std::string_view source);

/// A tools/call request up to its arguments.
[[nodiscard]] std::string call_head(std::string_view tool);

/// "line L, column C" of a byte, both from 1, columns in bytes.
[[nodiscard]] std::string byte_place(std::string_view text, std::size_t index);

}  // namespace kova::admin

// Where in a client's message the server's refusal has its reason.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "json/json.h"
#include "tools/tool.h"

namespace kova::admin {

/// The place of a message that does not parse: where it stops being JSON or nests too deeply, or
/// the second of two equal keys. None when the text ends too early or has too many values.
[[nodiscard]] std::optional<std::size_t> unparsable_place(std::string_view line);

/// The place of the version, the method or the id of a message that is refused for it; none when it
/// is missing.
[[nodiscard]] std::optional<std::size_t> envelope_place(const JsonDoc& doc,
                                                        std::string_view message);

/// The place of what a call's trace shows: a word or a sign of the statement; a word that the
/// policy does not allow, behind its quotation mark; the quotation mark of an unknown member's key;
/// the first byte of a value of the wrong type or out of range, its quotation mark included. None
/// when a flag of the policy, a missing member or the statement's length decided.
[[nodiscard]] std::optional<std::size_t> blamed_place(const JsonDoc& doc, int arguments,
                                                      const CallTrace& trace);

}  // namespace kova::admin

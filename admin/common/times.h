// Times as the audit log writes them: 2024-05-06T07:08:09.010Z.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kova::admin {

/// Milliseconds since 1970-01-01 UTC.
using UnixMs = std::int64_t;

[[nodiscard]] UnixMs now_ms();
[[nodiscard]] std::string time_text(UnixMs time);
/// Nothing unless the text is exactly of that form and a time that exists.
[[nodiscard]] std::optional<UnixMs> parse_time(std::string_view text);

}  // namespace kova::admin

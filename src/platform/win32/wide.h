// UTF-8 to and from the wide texts that the system's calls take.
#pragma once

#include <string_view>

#include "base/text.h"

namespace kova {

/// Room for a path or command line in UTF-16, with its terminator.
inline constexpr int kWideCapacity = 1024;

/// Converts to UTF-16. False when the text is no UTF-8 or does not fit.
[[nodiscard]] bool to_wide(const char* text, wchar_t (&out)[kWideCapacity]);

/// Converts to UTF-8. False when the text does not fit.
[[nodiscard]] bool from_wide(const wchar_t* text, TextOut out);

}  // namespace kova

// Floating-point numbers as text. The digits are the C library's; its decimal point is not, which
// depends on the locale that other code of the process has set. The C++ library's conversions,
// which know no locale, would make the executable two thirds larger and link the mathematics
// library, which each call would load.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/text.h"

namespace kova {

/// Characters of a number that read_float takes.
inline constexpr std::size_t kFloatTextLimit = 63;

/// Adds a number with nine significant digits, which tell every float apart (%.9g). When it does
/// not fit, nothing is added and false is returned.
[[nodiscard]] bool append_float(TextOut& out, float number);

/// Reads a decimal number of 1 to kFloatTextLimit characters. False for any other text, and when
/// another thread changes the locale at this very moment; what is too large becomes infinite.
[[nodiscard]] bool read_float(std::string_view text, double& number);

}  // namespace kova

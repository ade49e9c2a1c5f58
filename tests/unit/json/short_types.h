// The types of tokens under short names, for tables of tokens.
#pragma once

#include "json/json.h"

namespace kova::testing {

inline constexpr JsonType kO = JsonType::kObject;
inline constexpr JsonType kA = JsonType::kArray;
inline constexpr JsonType kS = JsonType::kString;
inline constexpr JsonType kP = JsonType::kPrimitive;

}  // namespace kova::testing

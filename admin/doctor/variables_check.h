// Variables that the server reads without ever complaining about them.
#pragma once

#include <string>
#include <vector>

#include "admin/doctor/check.h"

namespace kova::admin {

/// Judges the kill switches, and variables of the server's prefix that it does not know: a switch
/// that is misspelled stops nothing.
[[nodiscard]] Check check_switches();

/// Judges the settings of the HTTP transport. Without any of them nothing is found.
[[nodiscard]] Check check_http();

/// How a variable that is on or off is spelled.
enum class Spelling { kOn, kOff, kUnclear };

/// Off is unset, empty, "0", "false", "no" and "off"; unclear is what is neither on nor off to a
/// reader, and off to the server.
[[nodiscard]] Spelling spelling_of(const char* variable);

}  // namespace kova::admin

// Trace lines on standard error.
#pragma once

namespace kova {

/// Writes one line when KOVA_MCP_DEBUG is set, not empty and not "0"; the variable is read at each
/// call. At most 511 characters.
void trace(const char* directives, ...) __attribute__((format(gnu_printf, 1, 2)));

}  // namespace kova

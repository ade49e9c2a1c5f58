// Running other executables: with input and captured output, or in place of this process.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/text.h"

namespace kova {

/// Runs an executable without arguments, `input` on its standard input, and waits for its end.
/// What it writes to standard output goes into `output`, what it writes to standard error is
/// dropped. False when it cannot be started, does not end in time (it is then ended), ends with
/// another exit code than 0, or writes more than fits.
[[nodiscard]] bool ask_program(const char* path, std::string_view input, TextOut output,
                               std::uint32_t timeout_ms);

/// Runs an executable with this process's environment and standard streams in this process's place:
/// on Windows it waits for its end, and ends it when this process ends. `first` and `second` are
/// its arguments, null for none; neither holds a quotation mark. Returns its exit code on Windows,
/// and -1 when it cannot be started.
[[nodiscard]] int become_program(const char* path, const char* first, const char* second);

}  // namespace kova

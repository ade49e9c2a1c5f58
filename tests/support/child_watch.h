// What becomes of the child processes of the code under test. The unit test binary is linked so
// that ChildProcess::start and ChildProcess::collect pass through here.
#pragma once

#include <cstdint>

namespace kova::testing {

/// How many were started and not collected yet; the difference of two answers says what was done
/// between them.
[[nodiscard]] int uncollected_children();

/// The exit code of the one that was collected last.
[[nodiscard]] std::uint32_t last_exit_code();

}  // namespace kova::testing
